#include <complex>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/Console.h>
#include <fullwaveform/host/Grid.h>
#include <fullwaveform/host/TarnClass.h>

#include "Bindings.h"
#include "GridHandle.h"

namespace nb = nanobind;

namespace {

// A library call runs on one thread, so its messages are collected per thread until the call has returned to
// Python. The sink itself does not need the interpreter's lock.
std::vector<std::string>& messagesOfThread() {
  thread_local std::vector<std::string> messages;
  return messages;
}

/// Attributes of the grid (empty field name) or of one of its fields.
Holdex::Attributes& attributesOf(GridHandle& handle, std::string const& field) {
  if (field.empty()) {
    return handle.grid->attributes();
  }
  return handle.grid->addCartesianRepresentation("StandardCartesianChart3D").addField(field).attributes();
}

template <class T>
void setAttribute(GridHandle& handle, std::string const& field, std::string const& name,
                  std::vector<T> values) {
  attributesOf(handle, field)
      .setAttribute(name, Holdex::StrongPtr<Holdex::Chunk<T>>(new Holdex::Chunk<T>(std::move(values))));
}

}  // namespace

void bindHost(nb::module_& module) {
  Holdex::Console::setSink([](std::string const& message) { messagesOfThread().push_back(message); });
  module.def(
      "take_messages", [] { return std::exchange(messagesOfThread(), {}); },
      "Console messages of this thread since the last call.");

  nb::class_<GridHandle>(module, "Grid", "Attributes of a grid and of its fields.")
      .def(nb::init<>())
      .def("set_double", &setAttribute<double>, nb::arg("field"), nb::arg("name"), nb::arg("values"))
      .def("set_float", &setAttribute<float>, nb::arg("field"), nb::arg("name"), nb::arg("values"))
      .def("set_text", &setAttribute<std::string>, nb::arg("field"), nb::arg("name"), nb::arg("values"));

  module.def("chunk_memory_total", &Holdex::ChunkBase::memoryTotal, "Bytes held by all existing chunks.");
  module.def("after_pulse_class", [] { return Quorvane::TarnClass::afterpulse; });
}
