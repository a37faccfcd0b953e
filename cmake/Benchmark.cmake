# fullwaveform_bench(module SOURCES...): the benchmarks of a module, in one program named after it.
function(fullwaveform_bench module)
  set(program fullwaveform_${module}_bench)
  add_executable(${program} ${ARGN})
  target_include_directories(${program} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests/cpp)
  target_link_libraries(${program} PRIVATE fullwaveform_bench_support fullwaveform_internal
                                           fullwaveform_settings benchmark::benchmark_main)
endfunction()
