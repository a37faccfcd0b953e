#include <fullwaveform/pulsefit/PulseModel.h>

#include <limits>

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
            "invalid length 999.5 of the pulse model; expected at most 512 samples");
  EXPECT_EQ(
      errorWith([](PulseModel& m) { m.firstLag = 0.0; }),
      "invalid first lag 0 of the pulse model; expected a pulse that begins before lag 0 and ends after it");
  EXPECT_EQ(errorWith([](PulseModel& m) { m.noiseRms = 0.0; }),
            "invalid noise rms 0 of the pulse model; expected above 0");
  EXPECT_EQ(errorWith([](PulseModel& m) { m.scatter = -0.01; }),
            "invalid scatter -0.01 of the pulse model; expected at least 0");
  EXPECT_EQ(errorWith([](PulseModel& m) { m.baseline = nan; }).substr(0, 16), "invalid baseline");
}

}  // namespace
}  // namespace FullWaveform
