# fullwaveform_module(SOURCES ... HEADERS ...): adds the sources and the public headers of a module to the library.
function(fullwaveform_module)
  cmake_parse_arguments(PARSE_ARGV 0 module "" "" "SOURCES;HEADERS")
  list(TRANSFORM module_SOURCES PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  list(TRANSFORM module_HEADERS PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  target_sources(fullwaveform_objects PRIVATE ${module_SOURCES})
  target_sources(fullwaveform PUBLIC FILE_SET HEADERS FILES ${module_HEADERS})
endfunction()
