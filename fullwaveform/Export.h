#pragma once

#if __cplusplus < 202002L
#error \
    "fullwaveform needs C++20: compile with -std=c++20 or later (pkg-config --cflags and the CMake target set it)"
#endif

/// Marks the exported interface of the shared library; everything else is hidden.
#if defined(FULLWAVEFORM_STATIC)
#define FULLWAVEFORM_EXPORT
#else
#define FULLWAVEFORM_EXPORT __attribute__((visibility("default")))
#endif
