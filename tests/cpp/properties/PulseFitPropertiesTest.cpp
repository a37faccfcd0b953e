// What must not change the echoes of a pulse fit, and what must change them in a known way.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

#include <fullwaveform/pulsefit/PulseFit.h>
#include <gtest/gtest.h>

#include "pulsefit/TestPulses.h"
#include "support/Threads.h"

namespace FullWaveform {
namespace {

using Testing::Counts;
using Testing::gaussian;
using Testing::gaussianModel;
using Testing::noisyWaveform;
using Testing::pulseWidth;
using Testing::TrueEcho;
using Echoes = std::vector<PulseEcho>;

constexpr double sameSamples = 1e-6;     // samples: rounding of sums in another order
constexpr double sameRelative = 1e-6;    // the same, relative to amplitudes and standard deviations
constexpr double roundedSamples = 1e-4;  // samples: half a count of 20,000
constexpr double sameMinimum = 0.1;      // standard deviations: two ways to the same minimum

Echoes fitted(PulseFit& fit, Counts const& samples) {
  PulseFitResult const result = fit.apply(samples);
  return {result.echoes.begin(), result.echoes.end()};
}

/// One to four echoes between samples 30 and 70 of 100, of which some overlap.
Counts randomWaveform(std::mt19937& random) {
  std::uniform_real_distribution<double> uniform(0.0, 1.0);
  std::vector<TrueEcho> echoes(1 + random() % 4);
  for (TrueEcho& echo : echoes) {
    echo = {30.0 + 40.0 * uniform(random), 20.0 * std::pow(50.0, uniform(random)),
            pulseWidth * (1.0 + 0.3 * uniform(random))};
  }
  return noisyWaveform(100, echoes, random);
}

/// A model with all effects: correlated noise, scatter of the pulses, widening.
PulseModel fullModel() {
  PulseModel model = gaussianModel();
  model.noiseCorrelation = 1.1;
  model.baselineSpread = 1.0;
  model.scatter = 0.004;
  model.widening = 0.2;
  return model;
}

/// Applies `change` to a waveform, and `check` to each echo before and after it.
template <class Change, class Check>
void compare(PulseModel const& changedModel, Change const& change, Check const& check) {
  std::mt19937 random(31);
  PulseFit plain(fullModel());
  PulseFit changed(changedModel);
  std::size_t echoes = 0;
  for (int run = 0; run < 200; ++run) {
    SCOPED_TRACE(run);
    Counts const samples = randomWaveform(random);
    Echoes const before = fitted(plain, samples);
    Echoes const after = fitted(changed, change(samples));
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t k = 0; k < before.size(); ++k) {
      check(before[k], after[k]);
      EXPECT_EQ(after[k].flags, before[k].flags);
    }
    echoes += before.size();
  }
  EXPECT_GT(echoes, 300U);
}

void expectSameExceptPosition(PulseEcho const& before, PulseEcho const& after) {
  EXPECT_NEAR(after.amplitude, before.amplitude, sameRelative * before.amplitude);
  EXPECT_NEAR(after.fwhm, before.fwhm, sameSamples);
  EXPECT_NEAR(after.sigmaPosition, before.sigmaPosition, sameRelative);
  EXPECT_NEAR(after.sigmaAmplitude, before.sigmaAmplitude, sameRelative * before.sigmaAmplitude);
}

TEST(PulseFitProperties, ShiftedSamplesShiftTheEchoes) {
  constexpr std::ptrdiff_t shift = 11;
  compare(
      fullModel(),
      [](Counts samples) {
        std::rotate(samples.begin(), samples.end() - shift, samples.end());  // the last ones are quiet
        return samples;
      },
      [](PulseEcho const& before, PulseEcho const& after) {
        EXPECT_NEAR(after.position, before.position + shift, sameSamples);
        expectSameExceptPosition(before, after);
      });
}

TEST(PulseFitProperties, FractionalShiftsShiftTheEchoes) {
  PulseFit fit(gaussianModel());
  for (double shift = 0.0; shift <= 1.0; shift += 0.043) {
    Echoes const echoes =
        fitted(fit, Testing::waveform(100, {{40.0 + shift, 20000.0}, {55.3 + shift, 20000.0}}));
    ASSERT_EQ(echoes.size(), 2U);
    EXPECT_NEAR(echoes[0].position, 40.0 + shift, roundedSamples);
    EXPECT_NEAR(echoes[1].position, 55.3 + shift, roundedSamples);
    EXPECT_NEAR(echoes[0].amplitude, 20000.0, 2.0);
    EXPECT_NEAR(echoes[0].fwhm, 4.0, 5e-4);
  }
}

TEST(PulseFitProperties, ScaledSamplesScaleTheAmplitudes) {
  constexpr unsigned short factor = 3;
  PulseModel model = fullModel();
  model.baseline *= factor;
  model.baselineSpread *= factor;
  model.noiseRms *= factor;
  compare(
      model,
      [](Counts samples) {
        for (unsigned short& sample : samples) {
          sample = static_cast<unsigned short>(factor * sample);
        }
        return samples;
      },
      [](PulseEcho const& before, PulseEcho after) {
        EXPECT_NEAR(after.position, before.position, sameSamples);
        after.amplitude /= factor;
        after.sigmaAmplitude /= factor;
        expectSameExceptPosition(before, after);
      });
}

TEST(PulseFitProperties, AHigherBaselineChangesNothing) {
  constexpr unsigned short height = 500;
  PulseModel model = fullModel();
  model.baseline += height;
  compare(
      model,
      [](Counts samples) {
        for (unsigned short& sample : samples) {
          sample = static_cast<unsigned short>(sample + height);
        }
        return samples;
      },
      [](PulseEcho const& before, PulseEcho const& after) {
        EXPECT_NEAR(after.position, before.position, sameSamples);
        expectSameExceptPosition(before, after);
      });
}

/// A pulse with a tail, forwards or backwards in time.
PulseModel skewedModel(double direction) {
  PulseModel model = gaussianModel();
  model.pulse.clear();
  model.firstLag = -20.0;
  for (int i = 0; i <= 40 * 16; ++i) {
    double const lag = direction * (model.firstLag + i / 16.0);
    model.pulse.push_back(gaussian(lag) + 0.2 * gaussian(lag - 5.0));
  }
  return model;
}

TEST(PulseFitProperties, ReversedSamplesHaveReversedEchoes) {
  std::mt19937 random(33);
  std::uniform_real_distribution<double> uniform(0.0, 1.0);
  std::normal_distribution<double> noise(0.0, 2.0);
  PulseFit forwards(skewedModel(1.0));
  PulseFit backwards(skewedModel(-1.0));
  for (int run = 0; run < 100; ++run) {
    SCOPED_TRACE(run);
    std::array<TrueEcho, 2> const truth{{{30.0 + 5.0 * uniform(random), 100.0 + 900.0 * uniform(random)},
                                         {45.0 + 20.0 * uniform(random), 100.0 + 900.0 * uniform(random)}}};
    Counts samples;
    for (int i = 0; i < 100; ++i) {
      double value = 20.0 + noise(random);
      for (TrueEcho const& echo : truth) {
        double const lag = i - echo.position;
        value += echo.amplitude * (gaussian(lag) + 0.2 * gaussian(lag - 5.0));
      }
      samples.push_back(static_cast<unsigned short>(std::lround(std::max(value, 0.0))));
    }
    Echoes const before = fitted(forwards, samples);
    std::reverse(samples.begin(), samples.end());
    Echoes after = fitted(backwards, samples);
    std::reverse(after.begin(), after.end());
    ASSERT_EQ(before.size(), 2U);
    ASSERT_EQ(after.size(), 2U);
    for (std::size_t k = 0; k < 2; ++k) {
      EXPECT_NEAR(99.0 - after[k].position, before[k].position, sameMinimum * before[k].sigmaPosition);
      EXPECT_NEAR(after[k].amplitude, before[k].amplitude, sameMinimum * before[k].sigmaAmplitude);
      EXPECT_NEAR(after[k].sigmaPosition, before[k].sigmaPosition, 1e-3 * before[k].sigmaPosition);
    }
  }
}

/// Expects bit-identical results, NaN included.
void expectSame(Echoes const& left, Echoes const& right) {
  auto const valuesOf = [](Echoes const& echoes) {
    std::vector<double> values;
    for (PulseEcho const& echo : echoes) {
      for (double const value : {echo.position, echo.amplitude, echo.fwhm, echo.sigmaPosition,
                                 echo.sigmaAmplitude, echo.sigmaFwhm, echo.significance}) {
        values.push_back(std::isnan(value) ? -1.0 : value);
      }
      values.push_back(echo.flags);
    }
    return values;
  };
  EXPECT_EQ(valuesOf(left), valuesOf(right));
}

struct RandomWaveforms {
  RandomWaveforms() {
    std::mt19937 random(35);
    PulseFit fit(fullModel());
    for (int run = 0; run < 100; ++run) {
      waveforms.push_back(randomWaveform(random));
      waveforms.back().resize(40 + random() % 61);
      expected.push_back(fitted(fit, waveforms.back()));
    }
  }

  std::vector<Counts> waveforms;
  std::vector<Echoes> expected;
};

TEST(PulseFitProperties, TheOrderOfWaveformsDoesNotMatter) {
  RandomWaveforms const scan;
  std::vector<std::size_t> order(scan.waveforms.size());
  for (std::size_t i = 0; i < order.size(); ++i) {
    order[i] = i;
  }
  std::shuffle(order.begin(), order.end(), std::mt19937(36));
  PulseFit fit(fullModel());
  for (std::size_t const i : order) {
    expectSame(fitted(fit, scan.waveforms[i]), scan.expected[i]);
  }
}

TEST(PulseFitProperties, TheNumberOfThreadsDoesNotMatter) {
  constexpr std::size_t threads = 3;
  RandomWaveforms const scan;
  std::vector<Echoes> found(scan.waveforms.size());
  Testing::onThreads(threads, [&](int number) {
    PulseFit fit(fullModel());
    for (auto i = static_cast<std::size_t>(number); i < scan.waveforms.size(); i += threads) {
      found[i] = fitted(fit, scan.waveforms[i]);
    }
  });
  for (std::size_t i = 0; i < found.size(); ++i) {
    expectSame(found[i], scan.expected[i]);
  }
}

}  // namespace
}  // namespace FullWaveform
