#pragma once

#include <string_view>

#include <fullwaveform/host/Console.h>

namespace FullWaveform {

/// Sends one message to the host's console, as one text in one call.
/// Defined in this module because all modules that send messages depend on it, and `host/` is replaceable.
inline void logMessage(std::string_view message) {
  Holdex::Console() << message;
}

}  // namespace FullWaveform
