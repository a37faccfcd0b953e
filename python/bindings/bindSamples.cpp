#include <cstdint>
#include <vector>

#include <nanobind/ndarray.h>
#include <nanobind/stl/array.h>

#include <native/samples/PlaceBounds.h>
#include <native/samples/SampleStatistics.h>

#include "Bindings.h"
#include "NumpyColumn.h"

namespace nb = nanobind;

void bindSamples(nb::module_& module) {
  using Samples = nb::ndarray<std::uint16_t const, nb::ndim<2>, nb::c_contig, nb::device::cpu>;
  nb::class_<SampleStatistics>(module, "SampleStatistics", "Counts of samples by value and of waveforms.")
      .def(nb::init<>())
      .def(
          "add",
          [](SampleStatistics& statistics, Samples const& samples, InputColumn<std::uint16_t> const& counts) {
            nb::gil_scoped_release const release;
            statistics.add({samples.data(), samples.shape(0) * samples.shape(1)},
                           {counts.data(), counts.shape(0)}, samples.shape(1));
          },
          nb::arg("samples").noconvert(), nb::arg("counts").noconvert())
      .def_prop_ro("value_counts",
                   [](SampleStatistics const& statistics) {
                     return numpyColumn<std::int64_t>(statistics.valueCounts());
                   })
      .def_prop_ro("maximum_counts",
                   [](SampleStatistics const& statistics) {
                     return numpyColumn<std::int64_t>(std::vector<std::int64_t>(statistics.maximumCounts()));
                   })
      .def_prop_ro("plateaus", &SampleStatistics::plateaus);
  using Places = nb::ndarray<double const, nb::ndim<2>, nb::c_contig, nb::device::cpu>;
  nb::class_<PlaceBounds>(module, "PlaceBounds", "The box around the first and last samples of waveforms.")
      .def(nb::init<>())
      .def(
          "add",
          [](PlaceBounds& bounds, Places const& anchors, InputColumn<double> const& locations,
             Places const& directions, InputColumn<double> const& intervals,
             InputColumn<std::uint16_t> const& counts) {
            nb::gil_scoped_release const release;
            bounds.add({{anchors.data(), anchors.size()},
                        {locations.data(), locations.size()},
                        {directions.data(), directions.size()},
                        {intervals.data(), intervals.size()},
                        {counts.data(), counts.size()}});
          },
          nb::arg("anchors").noconvert(), nb::arg("locations").noconvert(), nb::arg("directions").noconvert(),
          nb::arg("intervals").noconvert(), nb::arg("counts").noconvert())
      .def_prop_ro("lower", &PlaceBounds::lower)
      .def_prop_ro("upper", &PlaceBounds::upper);
}
