#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

#include <fullwaveform/fitting/leastsquares/LevenbergMarquardtStep.h>
#include <gtest/gtest.h>
#include <Eigen/Core>
#include <unsupported/Eigen/NonLinearOptimization>

#include "support/Tolerances.h"

namespace FullWaveform {
namespace {

namespace Tolerance = Testing::Tolerance;
using Values = std::vector<double>;

/// A linearised least-squares problem and the settings of a step.
struct Problem {
  explicit Problem(int seed) : numbers(static_cast<unsigned>(seed)) {
    for (int gaussian = 0; gaussian < 2; ++gaussian) {
      parameters.insert(parameters.end(), {between(50.0, 500.0), between(0.0, 30.0), between(0.8, 4.0)});
    }
    if (seed % 2 == 0) {
      parameters[4] = 1e4;  // all derivatives are 0: the rank is 3 of 6
    }
    for (int sample = 0; sample < 30; ++sample) {
      signal.push_back(between(-100.0, 300.0));
    }
    for (std::size_t p = 0; p < parameters.size(); ++p) {
      scale.push_back(std::exp(between(-8.0, 8.0)));
    }
    bound = std::exp(between(-15.0, 5.0));
    damping = seed % 5 == 0 ? 0.0 : std::exp(between(-15.0, 15.0));
  }

  double between(double min, double max) {
    return min + (max - min) * static_cast<double>(numbers()) / 4294967295.0;
  }

  std::mt19937 numbers;
  Values parameters;
  Values signal;
  Values scale;
  double bound;
  double damping;
};

struct Step {
  double damping;
  Values step;
};

Step found(Problem const& problem) {
  GaussianSum sum;
  sum.setSignal(problem.signal, 0, problem.parameters.size());
  sum.evaluate(problem.parameters);
  Values squares(problem.parameters.size());
  sum.differentiate(squares);
  PivotedQr qr;
  qr.factorise(sum, squares);
  LevenbergMarquardtStep search;
  search.damping = problem.damping;
  search.find(qr, problem.scale, problem.bound);
  return {search.damping, search.step};
}

Step foundByEigen(Problem const& problem) {
  GaussianSum sum;
  sum.setSignal(problem.signal, 0, problem.parameters.size());
  sum.evaluate(problem.parameters);
  Values squares(problem.parameters.size());
  sum.differentiate(squares);
  auto const samples = static_cast<Eigen::Index>(sum.samples());
  auto const size = static_cast<Eigen::Index>(problem.parameters.size());
  Eigen::MatrixXd jacobian(samples, size);
  for (Eigen::Index p = 0; p < size; ++p) {
    jacobian.col(p) = Eigen::Map<Eigen::VectorXd const>(sum.column(static_cast<std::size_t>(p)), samples);
  }
  Eigen::VectorXd residual =
      Eigen::Map<Eigen::VectorXd const>(sum.column(problem.parameters.size()), samples);
  Eigen::ColPivHouseholderQR<Eigen::MatrixXd> const qr(jacobian);
  residual.applyOnTheLeft(qr.householderQ().adjoint());
  Eigen::VectorXd const qtf = residual.head(size);
  Eigen::VectorXd const scale = Eigen::Map<Eigen::VectorXd const>(problem.scale.data(), size);
  Eigen::VectorXd step(size);
  double damping = problem.damping;
  Eigen::internal::lmpar2<double>(qr, scale, qtf, problem.bound, damping, step);
  return {damping, Values(step.begin(), step.end())};
}

TEST(LevenbergMarquardtStep, AgreesWithEigen) {
  // Scales, bounds and previous dampings of many orders of magnitude. With problems of deficient rank,
  // searches that reach the lower bound of 0 are among them.
  for (int seed = 0; seed < 4000; ++seed) {
    Problem const problem(seed);
    Step const step = found(problem);
    Step const expected = foundByEigen(problem);
    EXPECT_NEAR(step.damping, expected.damping, Tolerance::sameSteps * expected.damping) << seed;
    for (std::size_t p = 0; p < expected.step.size(); ++p) {
      EXPECT_NEAR(step.step[p], expected.step[p], Tolerance::sameWildSteps * std::abs(expected.step[p]))
          << seed;
    }
  }
}

TEST(LevenbergMarquardtStep, SearchEndsAfterTenCorrections) {
  // A diagonal R of twelve orders of magnitude, with scales of 1: the length sqrt(sum of (R q / (R^2 +
  // damping))^2) falls so slowly with the damping that Newton's method takes 13 corrections to get within a
  // tenth of the bound.
  constexpr std::size_t size = 12;
  constexpr double bound = 1.36;
  GaussianSum sum;
  sum.setSignal(Values(size, 0.0), 0, size);
  PivotedQr qr;
  qr.factorise(sum, Values(size, 0.0));
  Eigen::MatrixXd jacobian = Eigen::MatrixXd::Zero(size, size);
  Eigen::VectorXd qtf(size);
  for (std::size_t i = 0; i < size; ++i) {
    for (std::size_t j = 0; j < size; ++j) {
      qr.r(i, j) = 0.0;
    }
    double const diagonal = std::pow(10.0, -static_cast<double>(i));
    qr.r(i, i) = diagonal;
    qr.qtf[i] = diagonal * std::pow(10.0, 0.08 * static_cast<double>(i));
    auto const k = static_cast<Eigen::Index>(i);
    jacobian(k, k) = diagonal;
    qtf[k] = qr.qtf[i];
  }
  LevenbergMarquardtStep search;
  search.find(qr, Values(size, 1.0), bound);

  Eigen::VectorXd step(size);
  double damping = 0.0;
  Eigen::internal::lmpar2<double>(Eigen::ColPivHouseholderQR<Eigen::MatrixXd>(jacobian),
                                  Eigen::VectorXd::Ones(size), qtf, bound, damping, step);
  EXPECT_NEAR(search.damping, damping, Tolerance::sameSteps * damping);
  EXPECT_NEAR(search.length, step.norm(), Tolerance::sameSteps * step.norm());
  EXPECT_GT(step.norm(), 1.4 * bound);  // ended by the limit, not by convergence
}

}  // namespace
}  // namespace FullWaveform
