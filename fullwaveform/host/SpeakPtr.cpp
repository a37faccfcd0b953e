#include <fullwaveform/host/SpeakPtr.h>

#include <cstdlib>
#include <string>

#include <fullwaveform/host/Console.h>

namespace Holdex {

void SpeakPtr::report(std::string_view misuse) {
  Console() << "SpeakPtr: " + std::string(misuse);
}

void SpeakPtr::abort(std::string_view misuse) {
  report(misuse);
  std::abort();
}

}  // namespace Holdex
