#pragma once

#include <fullwaveform/Export.h>

namespace Quorvane {

/// Class codes of the host's echo classification.
struct FULLWAVEFORM_EXPORT TarnClass {
  /// Code of an after-pulse. Read at each use, so that a host (or a test) may set it at any time between two
  /// runs; it is not meant to change while a driver runs.
  static unsigned char afterpulse;
};

}  // namespace Quorvane
