#include <array>
#include <cmath>
#include <cstddef>
#include <vector>

#include <fullwaveform/fitting/leastsquares/GaussianSum.h>
#include <fullwaveform/fitting/leastsquares/PivotedQr.h>
#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

PivotedQr factorised(std::vector<double> const& parameters, std::vector<double> const& signal) {
  GaussianSum sum;
  sum.setSignal(signal, 0, parameters.size());
  sum.evaluate(parameters);
  std::vector<double> squares(parameters.size());
  sum.differentiate(squares);
  PivotedQr qr;
  qr.factorise(sum, squares);
  return qr;
}

TEST(PivotedQr, ColumnsOfOneSampleLeaveNoRemainder) {
  // Echoes so narrow that all derivatives are in the nearest sample, and exp(-98) times smaller elsewhere:
  // one direction, whose length depends on the offset.
  for (double const offset : {0.21, 0.23, 0.26, 0.29, 0.3}) {
    PivotedQr const qr = factorised({317.3, 11.0 + offset, 0.05}, std::vector<double>(24, 7.0));
    EXPECT_EQ(qr.rank(), 1U);
    double const largest = std::abs(qr.r(0, 0));
    EXPECT_LT(std::abs(qr.r(1, 1)), 1e-30 * largest) << offset;
    EXPECT_LT(std::abs(qr.r(2, 2)), 1e-30 * largest) << offset;
  }
}

TEST(PivotedQr, KeepsLengthsAndAngles) {
  std::vector<double> const parameters{120.0, 5.3, 1.7, 60.0, 13.1, 2.2};
  std::vector<double> const signal(20, 3.0);
  GaussianSum sum;
  sum.setSignal(signal, 0, parameters.size());
  sum.evaluate(parameters);
  std::array<double, 6> squares{};
  sum.differentiate(squares);
  PivotedQr const qr = factorised(parameters, signal);
  for (std::size_t a = 0; a < 6; ++a) {
    for (std::size_t b = 0; b <= a; ++b) {
      double inJacobian = 0.0;
      for (std::size_t i = 0; i < signal.size(); ++i) {
        inJacobian += sum.column(qr.order[a])[i] * sum.column(qr.order[b])[i];
      }
      double inTriangle = 0.0;
      for (std::size_t i = 0; i <= b; ++i) {
        inTriangle += qr.r(i, a) * qr.r(i, b);
      }
      EXPECT_NEAR(inTriangle, inJacobian, 1e-13 * std::sqrt(squares[qr.order[a]] * squares[qr.order[b]]));
    }
  }
}

}  // namespace
}  // namespace FullWaveform
