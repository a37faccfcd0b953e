// What every fuzz target does before its first input and after its last.
#include <string>

#include <fullwaveform/host/Console.h>

extern "C" {

int LLVMFuzzerInitialize(int* argc, char*** argv);                                       // NOLINT
__attribute__((used, visibility("default"))) char const* __lsan_default_suppressions();  // NOLINT

/// Keeps the library's messages off the terminal.
int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {  // NOLINT
  Holdex::Console::setSink([](std::string const&) {});
  return 0;
}

/// Asked by the leak check. Fontconfig keeps the patterns of the fonts that were used as long as the process
/// runs and reaches them by offsets instead of addresses, which the check takes for leaks.
char const* __lsan_default_suppressions() {  // NOLINT
  return "leak:libfontconfig\n";
}
}
