# fullwaveform_room(SOURCES ... HEADERS ...): adds a room's sources and its public headers to the library.
function(fullwaveform_room)
  cmake_parse_arguments(PARSE_ARGV 0 room "" "" "SOURCES;HEADERS")
  list(TRANSFORM room_SOURCES PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  list(TRANSFORM room_HEADERS PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  target_sources(fullwaveform_objects PRIVATE ${room_SOURCES})
  target_sources(fullwaveform PUBLIC FILE_SET HEADERS FILES ${room_HEADERS})
endfunction()
