#include <fullwaveform/scanner/SystemWave.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/host/DataRange.h>
#include <fullwaveform/host/ReferenceBase.h>
#include <fullwaveform/host/VectorToPDF.h>
#include <fullwaveform/scanner/ExponentialSum.h>
#include <fullwaveform/scanner/LogMessage.h>

namespace FullWaveform {
namespace {

using ComplexTable = Holdex::StrongPtr<Holdex::Chunk<std::complex<double>>>;
using Wave = Holdex::StrongPtr<Holdex::Chunk<double>>;
using Range = Holdex::StrongPtr<Kestra::DataRange<double>, Holdex::InterfaceBase>;

constexpr double nanosecondsPerSecond = 1e9;
constexpr std::pair<unsigned int, unsigned int> maxIntervals{10, 5};

/// Why the input cannot be synthesised; empty if it can.
std::string inputError(ComplexTable const& a, ComplexTable const& b, double dt, unsigned int length) {
  if (!(dt > 0.0)) {  // Negated so that NaN is rejected too.
    return "dt <= 0";
  }
  if (!a || !b) {
    return "No expsum chunk";
  }
  if (a->size() != b->size()) {
    return "Expsum chunks of different lengths: " + std::to_string(a->size()) + " coefficients, " +
           std::to_string(b->size()) + " exponents";
  }
  if (a->empty()) {
    return "Expsum chunks without values";
  }
  return length == 0 ? "System wave of length 0" : "";
}

Wave buildSystemWave(ComplexTable const& a, ComplexTable const& b, double dt, unsigned int length) {
  std::string const error = inputError(a, b, dt, length);
  if (!error.empty()) {
    logMessage(error);
    return {};
  }
  auto wave = Holdex::makeStrong<Holdex::Chunk<double>>(length);
  synthesiseSystemWave({a->data(), a->size()}, {b->data(), b->size()}, dt, {wave->data(), wave->size()});
  return wave;
}

Range rangeOf(std::vector<double> const& values) {
  return Range(new Kestra::DataRange<double>(std::span<double const>(values)));
}

void plot(Holdex::Chunk<double> const& wave, double dt, std::filesystem::path const& file) {
  std::vector<double> x(wave.size());
  for (std::size_t i = 0; i < x.size(); ++i) {
    x[i] = static_cast<double>(i) * (nanosecondsPerSecond * dt);
  }
  std::vector<double> const y(wave.data(), wave.data() + wave.size());
  OrvikPDF::VectorToPDF plotter(file.string(), false, "System wave", {"time [ns]", "Normalized Amplitude"},
                                {rangeOf(x), rangeOf(y)}, maxIntervals);
  plotter.addVector(x, y, "Wave");
  std::string const error = plotter.write2Pdf(false);
  if (!error.empty()) {
    logMessage("createNormalizedSysWave: " + error);
  }
}

}  // namespace

Holdex::StrongPtr<Holdex::Chunk<double>> createNormalizedSysWave(
    Holdex::StrongPtr<Holdex::Chunk<std::complex<double>>> const& a,
    Holdex::StrongPtr<Holdex::Chunk<std::complex<double>>> const& b, double const& dt,
    unsigned int const& length, std::filesystem::path const& plotDir) {
  Wave wave = buildSystemWave(a, b, dt, length);
  if (!wave) {
    logMessage("Could not create system wave!");
    return {};
  }
  normaliseToMaximum({wave->data(), wave->size()});
  if (!plotDir.empty()) {
    plot(*wave, dt, plotDir / "SysWave.pdf");
  }
  return wave;
}

}  // namespace FullWaveform
