// Set-up of all fuzz targets.
#include <string>

#include <fullwaveform/host/Console.h>

extern "C" {

int LLVMFuzzerInitialize(int* argc, char*** argv);                                       // NOLINT
__attribute__((used, visibility("default"))) char const* __lsan_default_suppressions();  // NOLINT

/// Discards console messages.
int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {  // NOLINT
  Holdex::Console::setSink([](std::string const&) {});
  return 0;
}

/// Read by the leak sanitizer. Fontconfig keeps its font patterns until the process ends and refers to them
/// by offsets instead of addresses, which the sanitizer reports as leaks.
char const* __lsan_default_suppressions() {  // NOLINT
  return "leak:libfontconfig\n";
}
}
