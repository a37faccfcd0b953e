#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <nanobind/ndarray.h>
#include <nanobind/stl/shared_ptr.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <fullwaveform/pulsefit/PulseFit.h>
#include <fullwaveform/pulsefit/PulseModel.h>
#include <fullwaveform/work/WorkMeter.h>

#include "Bindings.h"
#include "ColumnTable.h"
#include "EchoRows.h"
#include "NumpyColumn.h"
#include "SignalPoll.h"

namespace nb = nanobind;
using FullWaveform::PulseEcho;
using FullWaveform::PulseFit;
using FullWaveform::PulseFitResult;
using FullWaveform::PulseFitSettings;
using FullWaveform::PulseModel;
using FullWaveform::RunMonitor;

namespace {

// Work of one fit in operations: it decides how often signals are handled, not the result.
constexpr std::uint64_t workPerFit = 20'000;
constexpr std::uint64_t workPerSample = 200;
constexpr std::uint64_t workPerEchoAndSample = 1000;

/// Source of the columns of an echo.
struct EchoRecord {
  std::int64_t row;  ///< of the samples
  PulseEcho const* echo;
};

inline constexpr auto echoColumns = std::tuple{
    ResultColumn{"row", [](EchoRecord const& r) { return r.row; }},
    ResultColumn{"position", [](EchoRecord const& r) { return r.echo->position; }},
    ResultColumn{"amplitude", [](EchoRecord const& r) { return r.echo->amplitude; }},
    ResultColumn{"fwhm", [](EchoRecord const& r) { return r.echo->fwhm; }},
    ResultColumn{"sigma_position", [](EchoRecord const& r) { return r.echo->sigmaPosition; }},
    ResultColumn{"sigma_amplitude", [](EchoRecord const& r) { return r.echo->sigmaAmplitude; }},
    ResultColumn{"sigma_fwhm", [](EchoRecord const& r) { return r.echo->sigmaFwhm; }},
    ResultColumn{"significance", [](EchoRecord const& r) { return r.echo->significance; }},
    ResultColumn{"flags", [](EchoRecord const& r) { return r.echo->flags; }},
};

inline constexpr auto waveformColumns = std::tuple{
    ResultColumn{"baseline", [](PulseFitResult const& r) { return r.baseline; }},
    ResultColumn{"reduced_chi_square", [](PulseFitResult const& r) { return r.reducedChiSquare; }},
    ResultColumn{"clipped_samples",
                 [](PulseFitResult const& r) { return static_cast<std::int64_t>(r.clippedSamples); }},
    ResultColumn{"echo_count",
                 [](PulseFitResult const& r) { return static_cast<std::int64_t>(r.echoes.size()); }},
};

struct FitTables {
  ColumnTable<EchoRecord, echoColumns> echoes;
  ColumnTable<PulseFitResult, waveformColumns> waveforms;
};

/// A fit and the lock that keeps two Python threads from using it at once.
class SharedFit {
 public:
  SharedFit(PulseModel const& model, PulseFitSettings const& settings, std::shared_ptr<RunMonitor> monitor)
      : fit(model, settings) {
    if (!fit.error().empty()) {
      throw nb::value_error(fit.error().c_str());
    }
    work.monitor = std::move(monitor);
  }

  nb::dict apply(EchoRows::Samples const& samples, InputColumn<std::uint16_t> const& counts,
                 InputColumn<std::int64_t> const& rows) {
    FitTables tables = fitted({samples, counts, rows});
    nb::dict result;
    result["echoes"] = numpyColumns(tables.echoes);
    result["waveforms"] = numpyColumns(tables.waveforms);
    return result;
  }

  nb::object pulses(InputColumn<double> const& positions, InputColumn<double> const& amplitudes,
                    InputColumn<double> const& fwhms, InputColumn<double> const& places) const {
    std::vector<PulseEcho> echoes(positions.shape(0));
    for (std::size_t k = 0; k < echoes.size(); ++k) {
      echoes[k].position = positions(k);
      echoes[k].amplitude = amplitudes(k);
      echoes[k].fwhm = fwhms(k);
    }
    std::vector<double> heights(places.shape(0), 0.0);
    fit.addPulses(echoes, {places.data(), places.shape(0)}, heights);
    return numpyColumn<double>(std::move(heights));
  }

 private:
  FitTables fitted(EchoRows const& waveforms) {
    auto poll = signalPoll();
    nb::gil_scoped_release const release;
    std::scoped_lock const lock(inUse);
    work.poll = std::move(poll);
    FitTables tables;
    for (std::int64_t const row : std::span(waveforms.ofEchoes.data(), waveforms.ofEchoes.shape(0))) {
      std::span<unsigned short const> const samples = waveforms.samplesOf(row);
      work.pass(0);
      PulseFitResult const result = fit.apply(samples);
      for (PulseEcho const& echo : result.echoes) {
        tables.echoes.append({row, &echo});
      }
      tables.waveforms.append(result);
      work.finishWaveform();
      work.pass(workPerFit + samples.size() * (workPerSample + workPerEchoAndSample * result.echoes.size()));
    }
    work.attend();
    return tables;
  }

  PulseFit fit;
  FullWaveform::WorkMeter work;
  std::mutex inUse;
};

void bindModelAndSettings(nb::module_& module) {
  nb::class_<PulseModel>(module, "PulseModel", "What a pulse fit knows of the scanner.")
      .def(nb::init<>())
      .def_prop_ro("error", &PulseModel::error)
      .def_rw("pulse", &PulseModel::pulse)
      .def_rw("first_lag", &PulseModel::firstLag)
      .def_rw("lag_step", &PulseModel::lagStep)
      .def_rw("baseline", &PulseModel::baseline)
      .def_rw("baseline_spread", &PulseModel::baselineSpread)
      .def_rw("noise_rms", &PulseModel::noiseRms)
      .def_rw("noise_correlation", &PulseModel::noiseCorrelation)
      .def_rw("scatter", &PulseModel::scatter)
      .def_rw("variance_spread", &PulseModel::varianceSpread)
      .def_rw("widening", &PulseModel::widening);
  nb::class_<PulseFitSettings>(module, "PulseFitSettings", "Settings of a pulse fit.")
      .def(nb::init<>())
      .def_prop_ro("error", &PulseFitSettings::error)
      .def_rw("false_alarms", &PulseFitSettings::falseAlarms)
      .def_rw("min_echo_cost", &PulseFitSettings::minEchoCost)
      .def_rw("digitiser_limit", &PulseFitSettings::digitiserLimit)
      .def_rw("max_variance", &PulseFitSettings::maxVariance);
}

void bindFlags(nb::module_& module) {
  nb::enum_<FullWaveform::PulseEchoFlag>(module, "PulseEchoFlag", nb::is_arithmetic(),
                                         "Remarks on an echo of a pulse fit; bits.")
      .value("FREE_WIDTH", FullWaveform::FREE_WIDTH)
      .value("CLIPPED", FullWaveform::CLIPPED)
      .value("AT_EDGE", FullWaveform::AT_EDGE)
      .value("NOT_CONVERGED", FullWaveform::NOT_CONVERGED);
}

}  // namespace

void bindPulseFit(nb::module_& module) {
  bindFlags(module);
  bindModelAndSettings(module);
  nb::class_<SharedFit>(module, "PulseFit", "The pulse fit; arrays are read without a copy.")
      .def(nb::init<PulseModel const&, PulseFitSettings const&, std::shared_ptr<RunMonitor>>(),
           nb::arg("model"), nb::arg("settings"), nb::arg("monitor") = nb::none())
      .def("apply", &SharedFit::apply, nb::arg("samples").noconvert(), nb::arg("counts").noconvert(),
           nb::arg("rows").noconvert(),
           "Fits the waveforms of the given rows: columns of their echoes, and of the waveforms in the order "
           "of `rows`.")
      .def("pulses", &SharedFit::pulses, nb::arg("positions").noconvert(), nb::arg("amplitudes").noconvert(),
           nb::arg("fwhms").noconvert(), nb::arg("places").noconvert(),
           "Sum of the pulses of the echoes at the given places, sample indices.");
}
