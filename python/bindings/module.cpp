#include "Bindings.h"

NB_MODULE(_core, module) {
  module.doc() = "The extraction library as it stands; the package around it checks arguments.";
  bindHost(module);
  bindScanner(module);
  bindModel(module);
  bindDeconvolution(module);
  bindOnline(module);
  bindDriver(module);
}
