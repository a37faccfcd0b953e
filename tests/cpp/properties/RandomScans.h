#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/Blocks.h"
#include "support/SkewedScanner.h"

namespace FullWaveform::Testing {

inline constexpr int scanNoise = 20;  // counts
inline constexpr unsigned short scanBaseline = 8;
inline constexpr unsigned int maxWaveformLength = 120;  // samples

/// A scanner with a system wave and a disabled after-pulse test.
inline ScannerDevice scannerWithSystemWave() {
  ScannerDevice scanner = skewedScanner();
  scanner.afterpulse_width = 1U << 31U;
  scanner.ampl_unit = 1.0;
  return scanner;
}

/// Random numbers; equal seeds give equal scans.
class Rng {
 public:
  explicit Rng(std::uint32_t seed) : engine(seed) {}
  int between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(engine); }
  double real(double low, double high) { return std::uniform_real_distribution<double>(low, high)(engine); }
  bool oneIn(int count) { return between(1, count) == 1; }
  template <class T>
  void shuffle(std::vector<T>& values) {
    std::shuffle(values.begin(), values.end(), engine);
  }

 private:
  std::mt19937 engine;
};

/// One to four Gaussians on the baseline at positions centre - spread to centre + spread, clipped at 4000
/// counts.
inline Samples gaussians(Rng& rng, std::size_t length, double centre, double spread,
                         double maxHeight = 9000.0) {
  std::vector<double> values(length, scanBaseline);
  for (int echo = rng.between(1, 4); echo > 0; --echo) {
    double const position = rng.real(centre - spread, centre + spread);
    double const width = rng.real(1.0, 3.0);
    double const height =
        rng.oneIn(5) ? rng.real(0.3 * maxHeight, maxHeight) : rng.real(30.0, 0.2 * maxHeight);
    for (std::size_t i = 0; i < length; ++i) {
      double const distance = (static_cast<double>(i) - position) / width;
      values[i] += height * std::exp(-0.5 * distance * distance);
    }
  }
  Samples samples(length);
  std::transform(values.begin(), values.end(), samples.begin(), [](double value) {
    return static_cast<unsigned short>(std::lround(std::min(value, 4000.0)));
  });
  return samples;
}

/// A waveform of echoes, of the baseline only, of full scale, of single spikes or of arbitrary values.
inline Samples randomWaveform(Rng& rng) {
  auto const length = static_cast<std::size_t>(rng.between(0, static_cast<int>(maxWaveformLength) - 25));
  int const kind = rng.between(0, 9);
  if (kind < 6) {
    auto const middle = static_cast<double>(length) / 2.0;
    Samples samples = gaussians(rng, length, middle, middle);
    for (unsigned short& sample : samples) {
      sample = static_cast<unsigned short>(sample + rng.between(-2, 2));
    }
    return samples;
  }
  Samples samples(length, kind == 6 ? 65535 : scanBaseline);
  int const maximum = kind == 9 ? 65535 : 100;
  for (unsigned short& sample : samples) {
    if (kind > 7 || (kind == 7 && rng.oneIn(6))) {
      sample = static_cast<unsigned short>(rng.between(0, maximum));
    }
  }
  return samples;
}

/// Rows of `shots` shots in random order of time; one to three consecutive rows per shot.
inline std::vector<Row> randomScan(std::uint32_t seed, int shots) {
  Rng rng(seed);
  std::vector<double> times;
  for (int shot = 0; shot < shots; ++shot) {
    times.push_back(1000.0 + shot * 1e-5);
  }
  rng.shuffle(times);
  std::vector<Row> rows;
  for (double const time : times) {
    Samples previous;
    for (int row = rng.between(1, 3); row > 0; --row) {
      Samples samples = !previous.empty() && rng.oneIn(8) ? previous : randomWaveform(rng);
      previous = samples;
      auto const flag = static_cast<unsigned char>(rng.between(0, 2));
      rows.push_back({std::move(samples), time, flag, rng.real(0.0, 1e-6)});
    }
  }
  return rows;
}

/// Appends the bytes of a value, so that NaN can be compared too.
template <class T>
void appendBytes(std::string& text, T const& value) {
  char bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  text.append(bytes, sizeof(T));
}

/// All results of a shot as bytes.
inline std::string bytesOf(Shot const& shot) {
  std::string text;
  for (WavePtr const& wave : shot.waves) {
    text += wave->print();
    appendBytes(text, wave->maxAmplitudeDB);
    for (Peak const& peak : wave->peaks) {
      appendBytes(text, peak.amplitude);
      appendBytes(text, peak.idx);
      appendBytes(text, peak.time);
      appendBytes(text, peak.std);
      appendBytes(text, peak.type);
      appendBytes(text, peak.quality);
      appendBytes(text, peak.classification);
      appendBytes(text, peak.reflectance);
    }
  }
  return text;
}

/// The bytes of all shots by their time.
inline std::map<double, std::string> bytesOf(ShotMap const& shots) {
  std::map<double, std::string> texts;
  for (auto const& [time, shot] : shots) {
    texts[time] = bytesOf(shot);
  }
  return texts;
}

}  // namespace FullWaveform::Testing
