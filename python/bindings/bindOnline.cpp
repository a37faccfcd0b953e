#include <cstdint>

#include <nanobind/ndarray.h>

#include <fullwaveform/online/OnlineEvaluation.h>

#include "Bindings.h"
#include "NumpyColumn.h"
#include "ResultColumns.h"

namespace nb = nanobind;

namespace {

using Evaluation = FullWaveform::OnlineEvaluation<unsigned short>;

/// On-board echoes as columns: shots ascending, the echoes of each nearest first.
Results::OnBoardTable evaluate(FullWaveform::ScannerDevice const& scanner,
                               InputColumn<double> const& shotTimes, InputColumn<double> const& ranges,
                               InputColumn<float> const& amplitudes, InputColumn<std::uint8_t> const& flags,
                               InputColumn<float> const& reflectances) {
  nb::gil_scoped_release const release;
  Results::OnBoardTable table;
  auto const shots =
      Evaluation(scanner).apply(columnView(shotTimes), columnView(ranges), columnView(amplitudes),
                                columnView<unsigned char>(flags), columnView(reflectances));
  for (auto const& [shotTime, wave] : shots) {
    for (FullWaveform::Peak const& peak : wave->peaks) {
      table.append({{wave.get(), 0, 0}, &peak, peak.amplitude});
    }
  }
  return table;
}

nb::dict evaluateOnline(FullWaveform::ScannerDevice const& scanner, InputColumn<double> const& shotTimes,
                        InputColumn<double> const& ranges, InputColumn<float> const& amplitudes,
                        InputColumn<std::uint8_t> const& flags, InputColumn<float> const& reflectances) {
  Results::OnBoardTable table = evaluate(scanner, shotTimes, ranges, amplitudes, flags, reflectances);
  return numpyColumns(table);
}

}  // namespace

void bindOnline(nb::module_& module) {
  module.def("evaluate_online", &evaluateOnline, nb::arg("scanner"), nb::arg("shot_times").noconvert(),
             nb::arg("ranges").noconvert(), nb::arg("amplitudes").noconvert(), nb::arg("flags").noconvert(),
             nb::arg("reflectances").noconvert(),
             "Echoes that the scanner extracted on board, shot by shot.");
}
