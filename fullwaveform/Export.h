#pragma once

/// Marks the exported interface of the shared library; everything else is hidden.
#if defined(FULLWAVEFORM_STATIC)
#define FULLWAVEFORM_EXPORT
#else
#define FULLWAVEFORM_EXPORT __attribute__((visibility("default")))
#endif
