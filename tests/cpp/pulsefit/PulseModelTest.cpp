#include <fullwaveform/pulsefit/PulseModel.h>

#include <cstddef>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "pulsefit/TestPulses.h"

namespace FullWaveform {
namespace {

using Testing::gaussianModel;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

TEST(PulseModel, AGaussianIsValid) {
  EXPECT_EQ(gaussianModel().error(), "");
}

TEST(PulseModel, NamesTheValueThatIsInvalid) {
  auto const errorWith = [](auto const& change) {
    PulseModel model = gaussianModel();
    change(model);
    return model.error();
  };
  EXPECT_EQ(errorWith([](PulseModel& m) { m.pulse = {0.0, 1.0, 0.0}; }),
            "the pulse of the model has 3 values; expected 8 to 65536");
  EXPECT_EQ(errorWith([](PulseModel& m) { m.pulse[3] = nan; }),
            "the pulse of the model must be finite, with a maximum above 0");
  EXPECT_EQ(errorWith([](PulseModel& m) { m.pulse.assign(100, 0.0); }),
            "the pulse of the model must be finite, with a maximum above 0");
  EXPECT_EQ(errorWith([](PulseModel& m) { m.lagStep = 0.0; }),
            "invalid lag step 0 of the pulse model; expected above 0 and at most 0.5 samples");
  EXPECT_EQ(errorWith([](PulseModel& m) { m.pulse.assign(2000, 1.0), m.lagStep = 0.5; }),
            "invalid length 999.5 of the pulse model; expected 4 to 512 samples");
  EXPECT_EQ(
      errorWith([](PulseModel& m) { m.firstLag = 0.0; }),
      "invalid first lag 0 of the pulse model; expected a pulse that begins before lag 0 and ends after it");
  EXPECT_EQ(errorWith([](PulseModel& m) { m.noiseRms = 0.0; }),
            "invalid noise rms 0 of the pulse model; expected 0.000001 to 1000000 counts");
  EXPECT_EQ(errorWith([](PulseModel& m) { m.scatter = -0.01; }),
            "invalid scatter -0.01 of the pulse model; expected 0 to 1");
  EXPECT_EQ(errorWith([](PulseModel& m) { m.baseline = nan; }).substr(0, 16), "invalid baseline");
}

TEST(PulseModel, PulsesWithoutAWidthAreErrors) {
  auto const errorOf = [](std::vector<double> const& pulse) {
    PulseModel model = gaussianModel();
    model.pulse = pulse;
    return model.error();
  };
  std::vector<double> const pulse = gaussianModel().pulse;
  std::vector<double> const none(pulse.size(), 0.0);
  EXPECT_EQ(errorOf(std::vector<double>(pulse.size(), 1.0)).substr(0, 34),
            "the pulse of the model is cut off;");
  for (std::size_t const at : {std::size_t{0}, std::size_t{16}, pulse.size() - 1}) {
    std::vector<double> peak = none;
    peak[at] = 1.0;
    EXPECT_EQ(errorOf(peak).substr(0, 34), "the pulse of the model is cut off;") << at;
  }
  std::vector<double> dip = pulse;
  dip[10] = -1.01;
  EXPECT_EQ(errorOf(dip),
            "the pulse of the model has a dip deeper than its maximum is high; expected a positive pulse");
  for (double const height : {1e-300, 1e300}) {
    std::vector<double> scaled = pulse;
    for (double& value : scaled) {
      value *= height;
    }
    EXPECT_EQ(errorOf(scaled).substr(0, 16), "invalid maximum ");
  }
  PulseModel narrow = gaussianModel();
  narrow.lagStep = 1e-9;
  narrow.firstLag = -1e-8;
  EXPECT_EQ(narrow.error().substr(0, 15), "invalid length ");
}

TEST(PulseModel, ValuesWhoseSquaresOverflowOrVanishAreErrors) {
  for (double PulseModel::* const member :
       {&PulseModel::noiseRms, &PulseModel::noiseCorrelation, &PulseModel::baselineSpread,
        &PulseModel::scatter, &PulseModel::varianceSpread, &PulseModel::widening, &PulseModel::baseline}) {
    PulseModel model = gaussianModel();
    model.*member = 1e200;
    EXPECT_NE(model.error(), "");
  }
  for (double PulseModel::* const member :
       {&PulseModel::noiseRms, &PulseModel::noiseCorrelation, &PulseModel::varianceSpread}) {
    PulseModel model = gaussianModel();
    model.*member = 1e-200;
    EXPECT_NE(model.error(), "");
  }
}

}  // namespace
}  // namespace FullWaveform
