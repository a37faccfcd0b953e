# One language level, one set of warnings, one set of floating-point rules for everything built here.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release)
endif()

add_library(fullwaveform_settings INTERFACE)
# No fused multiply-add: noise estimate and fits give the same digits on every machine.
# The floating-point exception flags are not used, so the compiler may execute divisions speculatively and vectorise
# them. This changes no digit.
target_compile_options(
  fullwaveform_settings INTERFACE -ffp-contract=off -fno-trapping-math -Wall -Wextra -Wpedantic -Wconversion
                                  -Wnon-virtual-dtor -Woverloaded-virtual)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # A false alarm on text + std::string (GCC bug 105651).
  target_compile_options(fullwaveform_settings INTERFACE -Wno-restrict)
endif()
if(NOT FULLWAVEFORM_OPENMP)
  target_compile_options(fullwaveform_settings INTERFACE -Wno-unknown-pragmas)
endif()
if(FULLWAVEFORM_WARNINGS_AS_ERRORS)
  target_compile_options(fullwaveform_settings INTERFACE -Werror)
endif()
