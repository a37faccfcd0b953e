#include <fullwaveform/pulsefit/PulseTable.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

#include <fullwaveform/fitting/LaneCount.h>

namespace FullWaveform {
namespace {

constexpr int phases = 16;
constexpr double minNodeDistance = 0.02;  // samples squared
constexpr double negligible = 1e-7;       // of the maximum; values beyond the last larger one are taken as 0
// Above this frequency (cycles per sample) nothing of a pulse is in the samples, and a spline through them is
// arbitrary. The steep filter keeps narrowing, which amplifies high frequencies, from amplifying that.
constexpr double bandLimit = 0.9;
constexpr int maxFrequency = 1;  // cycles per sample

using Spectrum = std::vector<std::complex<double>>;

/// Nodes are closer where a pulse is narrow: the series converges with the variance of the whole pulse.
std::vector<double> varianceNodes(double pulseVariance, double maxVariance) {
  std::vector<double> nodes;
  constexpr double step = 0.05;  // relative to the variance of the pulse
  double v = PulseTable::minVariance;
  while (v < maxVariance) {
    nodes.push_back(v);
    v += std::max(step * std::max(pulseVariance + v, 0.3), minNodeDistance);
  }
  nodes.push_back(maxVariance);
  return nodes;
}

/// Without the checks for infinities that the operator makes.
std::complex<double> product(std::complex<double> a, std::complex<double> b) {
  return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}

/// Fourier series of the pulse with the given period in samples.
Spectrum spectrumOf(PulseModel const& model, int period) {
  double const maximum = *std::max_element(model.pulse.begin(), model.pulse.end());
  std::size_t const count = model.pulse.size();
  auto const taper = static_cast<std::size_t>(std::ceil(1.0 / model.lagStep));  // one sample at each end
  Spectrum spectrum(static_cast<std::size_t>(period * maxFrequency) + 1);
  for (std::size_t k = 0; k < spectrum.size(); ++k) {
    double const frequency = static_cast<double>(k) / period;
    std::complex<double> sum;
    std::complex<double> wave = std::polar(1.0, -2.0 * std::numbers::pi * frequency * model.firstLag);
    std::complex<double> const turn = std::polar(1.0, -2.0 * std::numbers::pi * frequency * model.lagStep);
    for (std::size_t i = 0; i < count; ++i, wave = product(wave, turn)) {
      std::size_t const fromEnd = std::min(i, count - 1 - i);
      double const weight = fromEnd >= taper
                                ? 1.0
                                : 0.5 - 0.5 * std::cos(std::numbers::pi * static_cast<double>(fromEnd) /
                                                       static_cast<double>(taper));
      sum += weight * model.pulse[i] / maximum * wave;
    }
    double const filter = std::exp(-std::pow(frequency / bandLimit, 16.0));
    spectrum[k] = sum * (filter * model.lagStep / period * (k == 0 ? 1.0 : 2.0));
  }
  return spectrum;
}

/// exp(2 pi i k / count) for all k below count.
Spectrum rootsOfUnity(int count) {
  Spectrum roots(static_cast<std::size_t>(count));
  for (int k = 0; k < count; ++k) {
    roots[static_cast<std::size_t>(k)] = std::polar(1.0, 2.0 * std::numbers::pi * k / count);
  }
  return roots;
}

double angularFrequency(std::size_t index, Spectrum const& root) {
  return 2.0 * std::numbers::pi * phases * static_cast<double>(index) / static_cast<double>(root.size());
}

/// The series of the pulse with a variance added, up to its last term that matters to any derivative.
Spectrum widened(Spectrum spectrum, double variance, Spectrum const& root) {
  std::size_t count = 0;
  for (std::size_t k = 0; k < spectrum.size(); ++k) {
    double const angular = angularFrequency(k, root);
    spectrum[k] *= std::exp(-0.5 * variance * angular * angular);
    if (std::abs(spectrum[k]) * std::pow(std::max(angular, 1.0), 4.0) >= 1e-16) {
      count = k + 1;
    }
  }
  spectrum.resize(count);
  return spectrum;
}

/// A range of whole lags.
struct Lags {
  int first;
  int count;
};

/// Steps through the roots of unity that a term of a series has at equidistant lags.
class Turn {
 public:
  Turn(Spectrum const& root, int firstLag, std::size_t term, int step)
      : root(&root), size(static_cast<std::int64_t>(root.size())) {
    auto const at = [&](std::int64_t lagSteps) {
      std::int64_t const rest = lagSteps * static_cast<std::int64_t>(term) % size;
      return rest < 0 ? rest + size : rest;
    };
    index = at(std::int64_t{firstLag} * phases);
    by = at(step);
  }
  std::complex<double> next() {
    std::complex<double> const value = (*root)[static_cast<std::size_t>(index)];
    index += by;
    index -= index >= size ? size : 0;
    return value;
  }

 private:
  Spectrum const* root;
  std::int64_t size;
  std::int64_t index;
  std::int64_t by;
};

/// The lags outside which a pulse is negligible at whole lags, and two more on each side.
Lags supportOf(Spectrum const& spectrum, Spectrum const& root, Lags const& all) {
  std::vector<double> values(static_cast<std::size_t>(all.count));
  for (std::size_t k = 0; k < spectrum.size(); ++k) {
    Turn turn(root, all.first, k, phases);
    for (double& value : values) {
      value += product(spectrum[k], turn.next()).real();
    }
  }
  double const peak = *std::max_element(values.begin(), values.end());
  auto const matters = [&](double value) { return std::abs(value) > negligible * peak; };
  auto const begin = std::find_if(values.begin(), values.end(), matters) - values.begin();
  auto const end = values.rend() - std::find_if(values.rbegin(), values.rend(), matters);
  int const first = std::max(static_cast<int>(begin) - 2, 0);
  return {all.first + first, std::min(static_cast<int>(end) + 2, all.count) - first};
}

/// The pulse and its derivatives at all phases: values[order][index], index / phases being the lag from the
/// first one on.
using Curves = std::array<std::vector<double>, PulseTable::derivatives>;

Curves curvesOf(Spectrum const& spectrum, Spectrum const& root, Lags const& lags) {
  Curves curves;
  curves.fill(std::vector<double>(static_cast<std::size_t>(lags.count * phases)));
  double* const values[] = {curves[0].data(), curves[1].data(), curves[2].data(), curves[3].data(),
                            curves[4].data()};
  for (std::size_t k = 0; k < spectrum.size(); ++k) {
    // Each derivative multiplies by i x angular frequency, which exchanges real and imaginary parts.
    double const angular = angularFrequency(k, root);
    double const second = -angular * angular;
    Turn turn(root, lags.first, k, 1);
    for (std::size_t i = 0; i < curves[0].size(); ++i) {
      std::complex<double> const value = product(spectrum[k], turn.next());
      double const slope = -angular * value.imag();
      double const curvature = second * value.real();
      values[0][i] += value.real();
      values[1][i] += slope;
      values[2][i] += curvature;
      values[3][i] += second * slope;
      values[4][i] += second * curvature;
    }
  }
  return curves;
}

/// Lag (in steps) at which a curve falls through half of its peak, in one direction from it.
double crossing(std::vector<double> const& curve, std::size_t peak, int direction, double half) {
  auto i = static_cast<std::ptrdiff_t>(peak);
  auto const size = static_cast<std::ptrdiff_t>(curve.size());
  while (i + direction >= 0 && i + direction < size &&
         curve[static_cast<std::size_t>(i + direction)] > half) {
    i += direction;
  }
  if (i + direction < 0 || i + direction >= size) {
    return static_cast<double>(i);
  }
  double const inside = curve[static_cast<std::size_t>(i)];
  double const outside = curve[static_cast<std::size_t>(i + direction)];
  return static_cast<double>(i) + direction * (inside - half) / (inside - outside);
}

PulseTable::Shape shapeOf(Curves const& curves) {
  std::vector<double> const& curve = curves[0];
  auto const peak = static_cast<std::size_t>(std::max_element(curve.begin(), curve.end()) - curve.begin());
  // The maximum lies between two phases; its distance follows from the slope.
  double const shift = curves[2][peak] < 0.0 ? -curves[1][peak] / curves[2][peak] : 0.0;
  double const height = curve[peak] + 0.5 * shift * curves[1][peak];
  double const width = crossing(curve, peak, 1, 0.5 * height) - crossing(curve, peak, -1, 0.5 * height);
  return {height, width / phases, 0.5 * curves[2][peak], 0.0};
}

/// Second moment around the mean of the part of a pulse above a tenth of its maximum.
double varianceOf(PulseModel const& model) {
  double const limit = 0.1 * *std::max_element(model.pulse.begin(), model.pulse.end());
  double area = 0.0;
  double mean = 0.0;
  double square = 0.0;
  for (std::size_t i = 0; i < model.pulse.size(); ++i) {
    if (model.pulse[i] > limit) {
      double const lag = model.firstLag + model.lagStep * static_cast<double>(i);
      area += model.pulse[i];
      mean += model.pulse[i] * lag;
      square += model.pulse[i] * lag * lag;
    }
  }
  return square / area - (mean / area) * (mean / area);
}

/// Value of a placed pulse at a sample, 0 beyond its ends.
double sampleOf(PulseTable::Place const& place, int sample) {
  if (sample < place.first || sample >= place.first + place.count) {
    return 0.0;
  }
  double value = 0.0;
  for (std::size_t order = 0; order < PulseTable::derivatives; ++order) {
    value += place.coefficients[order] * place.rows[order][sample - place.first];
  }
  return value;
}

}  // namespace

PulseTable::PulseTable(PulseModel const& model, double maxVariance) {
  double const lastLag = model.firstLag + model.lagStep * static_cast<double>(model.pulse.size() - 1);
  auto const widest = static_cast<int>(std::ceil(6.0 * std::sqrt(maxVariance)));
  int const firstLag = static_cast<int>(std::floor(model.firstLag)) - widest;
  Lags const all{firstLag, static_cast<int>(std::ceil(lastLag)) + widest - firstLag + 1};
  Spectrum const spectrum = spectrumOf(model, all.count);
  Spectrum const roots = rootsOfUnity(all.count * phases);
  for (double const variance : varianceNodes(varianceOf(model), maxVariance)) {
    Spectrum const series = widened(spectrum, variance, roots);
    Lags const lags = supportOf(series, roots, all);
    Curves const curves = curvesOf(series, roots, lags);
    Shape const shape = shapeOf(curves);
    auto const matters = [&](double value) { return std::abs(value) > negligible * shape.peak; };
    auto const begin = std::find_if(curves[0].begin(), curves[0].end(), matters) - curves[0].begin();
    auto const end = curves[0].rend() - std::find_if(curves[0].rbegin(), curves[0].rend(), matters);
    int const first = lags.first + static_cast<int>(begin) / phases;
    int const last = lags.first + std::min(static_cast<int>(end) / phases + 1, lags.count - 2);
    nodes.push_back({variance, first, last - first + 1, values.size(), shape});
    for (int phase = 0; phase < phases; ++phase) {
      for (std::vector<double> const& order : curves) {
        std::size_t const row = values.size();
        values.resize(row + rowLength(nodes.back()), 0.0);
        for (int i = 0; i < nodes.back().count; ++i) {
          int const index = (first + i - lags.first) * phases - phase;
          if (index >= 0) {
            values[row + static_cast<std::size_t>(i)] = order[static_cast<std::size_t>(index)];
          }
        }
      }
    }
  }
  fillBuckets();
  for (std::size_t j = 0; j < nodes.size(); ++j) {
    Node const& before = nodes[j == 0 ? 0 : j - 1];
    Node const& after = nodes[std::min(j + 1, nodes.size() - 1)];
    nodes[j].shape.fwhmSlope = (after.shape.fwhm - before.shape.fwhm) / (after.variance - before.variance);
  }
}

void PulseTable::fillBuckets() {
  auto const buckets = static_cast<std::size_t>((nodes.back().variance - minVariance) / minNodeDistance) + 1;
  std::size_t near = 0;
  for (std::size_t bucket = 0; bucket < buckets; ++bucket) {
    double const variance = minVariance + minNodeDistance * static_cast<double>(bucket);
    while (near + 1 < nodes.size() && variance - nodes[near].variance > nodes[near + 1].variance - variance) {
      ++near;
    }
    nodeOfBucket.push_back(static_cast<std::uint16_t>(near));
  }
}

std::size_t PulseTable::rowLength(Node const& node) const {
  return (static_cast<std::size_t>(node.count) + laneCount - 1) / laneCount * laneCount + laneCount;
}

std::size_t PulseTable::nodeNear(double variance) const {
  auto const last = static_cast<double>(nodeOfBucket.size() - 1);
  double const bucket = std::clamp((variance - minVariance) / minNodeDistance, 0.0, last);
  std::size_t near = nodeOfBucket[static_cast<std::size_t>(bucket)];
  // Buckets are no wider than the distance of nodes.
  if (near + 1 < nodes.size() && variance - nodes[near].variance > nodes[near + 1].variance - variance) {
    ++near;
  }
  return near;
}

PulseTable::Place PulseTable::placeAt(double position, double variance) const {
  Node const& node = nodes[nodeNear(variance)];
  double const before = std::floor(position);
  double const steps = std::round((position - before) * phases);
  int const isNext = steps == phases ? 1 : 0;
  int const phase = isNext == 1 ? 0 : static_cast<int>(steps);
  double const d = steps / phases - (position - before);  // lag of the samples minus that of the table
  double const w = 0.5 * (variance - node.variance);
  Place place{static_cast<int>(before) + isNext + node.firstSample, node.count, {}, {}};
  place.coefficients = {1.0, d, 0.5 * d * d + w, d * d * d / 6.0 + d * w,
                        d * d * d * d / 24.0 + 0.5 * d * d * w + 0.5 * w * w};
  double const* const first =
      values.data() + node.offset + static_cast<std::size_t>(phase) * derivatives * rowLength(node);
  for (std::size_t order = 0; order < derivatives; ++order) {
    place.rows[order] = first + order * rowLength(node);
  }
  return place;
}

PulseTable::Shape PulseTable::shapeAt(double variance) const {
  Node const& node = nodes[nodeNear(variance)];
  double const rest = variance - node.variance;
  Shape shape = node.shape;
  shape.peak += rest * shape.peakSlope;
  shape.fwhm += rest * shape.fwhmSlope;
  return shape;
}

double PulseTable::varianceAt(double fwhm) const {
  double low = nodes.front().variance;
  double high = nodes.back().variance;
  constexpr int halvings = 50;
  for (int i = 0; i < halvings; ++i) {
    double const middle = 0.5 * (low + high);
    (shapeAt(middle).fwhm < fwhm ? low : high) = middle;
  }
  return 0.5 * (low + high);
}

double PulseTable::valueAt(double lag, double variance) const {
  double const whole = std::floor(lag);
  return sampleOf(placeAt(whole - lag, variance), static_cast<int>(whole));
}

std::vector<double> PulseTable::samplesAt(double shift, int first, int last) const {
  Place const place = placeAt(-shift, 0.0);
  std::vector<double> samples;
  for (int i = first; i <= last; ++i) {
    samples.push_back(sampleOf(place, i));
  }
  return samples;
}

}  // namespace FullWaveform
