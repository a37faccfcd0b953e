#include <cstdint>
#include <utility>
#include <vector>

#include <nanobind/ndarray.h>

#include <fullwaveform/online/OnlineEvaluation.h>

#include "Bindings.h"
#include "NumpyColumn.h"

namespace nb = nanobind;

namespace {

using Evaluation = FullWaveform::OnlineEvaluation<unsigned short>;

/// On-board echoes as columns: shots ascending, the echoes of each nearest first.
struct OnlineColumns {
  std::vector<double> shotTime;
  std::vector<std::uint8_t> isLowPower;
  std::vector<float> amplitude;
  std::vector<double> time;
  std::vector<std::uint8_t> type;
  std::vector<float> reflectance;
};

OnlineColumns evaluate(FullWaveform::ScannerDevice const& scanner, Column<double> const& shotTimes,
                       Column<double> const& ranges, Column<float> const& amplitudes,
                       Column<std::uint8_t> const& flags, Column<float> const& reflectances) {
  nb::gil_scoped_release const release;
  OnlineColumns columns;
  auto const shots =
      Evaluation(scanner).apply(columnView(shotTimes), columnView(ranges), columnView(amplitudes),
                                columnView<unsigned char>(flags), columnView(reflectances));
  for (auto const& [shotTime, wave] : shots) {
    for (FullWaveform::Peak const& peak : wave->peaks) {
      columns.shotTime.push_back(shotTime);
      columns.isLowPower.push_back(wave->isLowPower ? 1 : 0);
      columns.amplitude.push_back(peak.amplitude);
      columns.time.push_back(peak.time);
      columns.type.push_back(static_cast<std::uint8_t>(peak.type));
      columns.reflectance.push_back(peak.reflectance);
    }
  }
  return columns;
}

nb::dict evaluateOnline(FullWaveform::ScannerDevice const& scanner, Column<double> const& shotTimes,
                        Column<double> const& ranges, Column<float> const& amplitudes,
                        Column<std::uint8_t> const& flags, Column<float> const& reflectances) {
  OnlineColumns columns = evaluate(scanner, shotTimes, ranges, amplitudes, flags, reflectances);
  nb::dict table;
  table["shotTime"] = numpyColumn(std::move(columns.shotTime));
  table["isLowPower"] = numpyColumn(std::move(columns.isLowPower));
  table["amplitude"] = numpyColumn(std::move(columns.amplitude));
  table["time"] = numpyColumn(std::move(columns.time));
  table["type"] = numpyColumn(std::move(columns.type));
  table["reflectance"] = numpyColumn(std::move(columns.reflectance));
  return table;
}

}  // namespace

void bindOnline(nb::module_& module) {
  module.def("evaluate_online", &evaluateOnline, nb::arg("scanner"), nb::arg("shot_times").noconvert(),
             nb::arg("ranges").noconvert(), nb::arg("amplitudes").noconvert(), nb::arg("flags").noconvert(),
             nb::arg("reflectances").noconvert(),
             "Echoes that the scanner extracted on board, shot by shot.");
}
