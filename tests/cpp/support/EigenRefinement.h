#pragma once

#include <algorithm>
#include <cmath>
#include <span>

#include <Eigen/Core>
#include <unsupported/Eigen/NonLinearOptimization>

namespace FullWaveform::Testing {

/// A sum of Gaussians and its derivatives as plain formulas, for Eigen's minimiser.
class PlainGaussianSum {
 public:
  PlainGaussianSum(std::span<double const> signal, int first) : signal(signal), first(first) {}

  [[nodiscard]] int values() const { return static_cast<int>(signal.size()); }

  int operator()(Eigen::VectorXd const& parameters, Eigen::VectorXd& residual) const {
    for (Eigen::Index i = 0; i < residual.size(); ++i) {
      double const x = first + static_cast<double>(i);
      residual[i] = -signal[static_cast<std::size_t>(i)];
      for (Eigen::Index p = 0; p < parameters.size(); p += 3) {
        residual[i] += std::abs(parameters[p]) * shape(x, parameters[p + 1], parameters[p + 2]);
      }
    }
    return 0;
  }

  int df(Eigen::VectorXd const& parameters, Eigen::MatrixXd& jacobian) const {
    for (Eigen::Index p = 0; p < parameters.size(); p += 3) {
      double const amplitude = std::abs(parameters[p]);
      double const variance = parameters[p + 2] * parameters[p + 2];
      for (Eigen::Index i = 0; i < jacobian.rows(); ++i) {
        double const x = first + static_cast<double>(i);
        double const distance = x - std::abs(parameters[p + 1]);
        double const height = shape(x, parameters[p + 1], parameters[p + 2]);
        jacobian(i, p) = height;
        jacobian(i, p + 1) = distance * amplitude * height / variance;
        jacobian(i, p + 2) =
            amplitude * height * distance * distance / (std::abs(parameters[p + 2]) * variance);
      }
    }
    return 0;
  }

 private:
  static double shape(double x, double position, double width) {
    double const m = std::abs(position);
    return std::exp(0.5 * (m - x) * (x - m) / (width * width));
  }

  std::span<double const> signal;
  int first;
};

/// `GaussianRefinement::refine` with the minimiser of Eigen.
inline int eigenRefinement(std::span<double const> signal, int first, std::span<double> parameters) {
  if (!std::all_of(parameters.begin(), parameters.end(), [](double value) { return std::isfinite(value); })) {
    return 0;
  }
  Eigen::Map<Eigen::VectorXd> start(parameters.data(), static_cast<Eigen::Index>(parameters.size()));
  Eigen::VectorXd solution = start;
  PlainGaussianSum problem(signal, first);
  Eigen::LevenbergMarquardt<PlainGaussianSum, double> minimiser(problem);
  minimiser.parameters.factor = 100.0;
  minimiser.parameters.maxfev = 20;
  minimiser.parameters.ftol = 0.001;
  minimiser.parameters.xtol = 0.001;
  minimiser.parameters.gtol = 0.0;
  minimiser.minimize(solution);
  start = solution;
  return static_cast<int>(minimiser.nfev);
}

}  // namespace FullWaveform::Testing
