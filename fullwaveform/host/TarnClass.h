#pragma once

#include <fullwaveform/Export.h>

namespace Quorvane {

/// Class codes of the host's echo classification.
struct FULLWAVEFORM_EXPORT TarnClass {
  /// Code of an after-pulse, read at each use. A host or a test may set it while no driver runs.
  static unsigned char afterpulse;
};

}  // namespace Quorvane
