# Headers, library, CMake package and pkg-config file of the installed tree.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(
  TARGETS fullwaveform
  EXPORT fullwaveformTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

string(REGEX REPLACE "[^/]+" ".." libToPrefix "${CMAKE_INSTALL_LIBDIR}")
set(packageDirectory ${CMAKE_INSTALL_LIBDIR}/cmake/fullwaveform)
install(EXPORT fullwaveformTargets NAMESPACE fullwaveform:: DESTINATION ${packageDirectory})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/fullwaveformConfig.cmake.in fullwaveformConfig.cmake
                              INSTALL_DESTINATION ${packageDirectory})
write_basic_package_version_file(fullwaveformConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fullwaveformConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/fullwaveformConfigVersion.cmake DESTINATION ${packageDirectory})

# Relocatable if the directories are below the prefix, as usual.
set(pcPrefix "\${pcfiledir}/../${libToPrefix}")
foreach(directory IN ITEMS LIBDIR INCLUDEDIR)
  cmake_path(IS_ABSOLUTE CMAKE_INSTALL_${directory} isAbsolute)
  if(isAbsolute)
    set(pc${directory} "${CMAKE_INSTALL_${directory}}")
    set(pcPrefix "${CMAKE_INSTALL_PREFIX}")
  else()
    set(pc${directory} "\${prefix}/${CMAKE_INSTALL_${directory}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/fullwaveform.pc.in fullwaveform.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fullwaveform.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
