#pragma once

/// Marks what the shared library shows to its users; everything else stays hidden.
#if defined(FULLWAVEFORM_STATIC)
#define FULLWAVEFORM_EXPORT
#else
#define FULLWAVEFORM_EXPORT __attribute__((visibility("default")))
#endif
