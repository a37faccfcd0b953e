#pragma once

#include <string_view>

#include <fullwaveform/host/Console.h>

namespace FullWaveform {

/// Sends one message to the host's console: one text, handed over in one call.
/// Here because every module that sends messages may include this one, and `host/` holds no code of ours.
inline void logMessage(std::string_view message) {
  Holdex::Console() << message;
}

}  // namespace FullWaveform
