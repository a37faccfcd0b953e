# fullwaveform_bench(room SOURCES...): the benchmarks of a room, in one program named after it.
function(fullwaveform_bench room)
  set(program fullwaveform_${room}_bench)
  add_executable(${program} ${ARGN})
  target_include_directories(${program} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests/cpp)
  target_link_libraries(${program} PRIVATE fullwaveform_bench_support fullwaveform_internal
                                           fullwaveform_settings benchmark::benchmark_main)
endfunction()
