#include <fullwaveform/pulsefit/PulseTable.h>

#include <algorithm>
#include <cmath>

#include <fullwaveform/fitting/LaneCount.h>
#include <fullwaveform/pulsefit/PulseSeries.h>

namespace FullWaveform {
namespace {

constexpr int phases = PulseSeries::phases;
constexpr double minNodeDistance = 0.02;  // samples squared
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

PulseTable::Shape shapeOf(PulseSeries::Curves const& curves) {
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
  PulseSeries const series(model, {firstLag, static_cast<int>(std::ceil(lastLag)) + widest - firstLag + 1});
  for (double const variance : varianceNodes(varianceOf(model), maxVariance)) {
    auto const [lags, curves] = series.widened(variance);
    Shape const shape = shapeOf(curves);
    auto const matters = [&](double value) { return std::abs(value) > PulseSeries::negligible * shape.peak; };
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
