#include <native/bytes/FreedMemory.h>

#include "Bindings.h"

NB_MODULE(_core, module) {
  // An error that ends the program keeps objects in its traceback until the interpreter is gone.
  nanobind::set_leak_warnings(false);
  module.doc() = "The extraction library. It does not check its arguments; use the package fullwaveform.";
  module.def("keep_freed_memory", &keepFreedMemory,
             "Lets the process keep memory that it frees, up to 128 MB for each thread.");
  bindHost(module);
  bindScanner(module);
  bindModel(module);
  bindFitting(module);
  bindDeconvolution(module);
  bindOnline(module);
  bindPulseWaves(module);
  bindLas(module);
  bindSamples(module);
  bindDriver(module);
  bindPulseFit(module);
  bindUncertainty(module);
  bindEchoTable(module);
  bindCsv(module);
}
