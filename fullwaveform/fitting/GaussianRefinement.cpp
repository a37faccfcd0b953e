#include <fullwaveform/fitting/GaussianRefinement.h>

#include <algorithm>
#include <cmath>

#include <Eigen/Core>
#include <unsupported/Eigen/NonLinearOptimization>

#include <fullwaveform/fitting/GaussianSum.h>

namespace FullWaveform {
namespace {

/// The problem in the form that the minimiser calls.
class GaussianSumProblem {
 public:
  GaussianSumProblem(std::span<double const> signal, int first) : signal(signal), first(first) {}

  [[nodiscard]] int values() const { return static_cast<int>(signal.size()); }

  int operator()(Eigen::VectorXd const& parameters, Eigen::VectorXd& residual) const {
    gaussianSumResidual(view(parameters), first, signal, {residual.data(), signal.size()});
    return 0;
  }

  /// Derivatives; 0 tells the minimiser that they are analytic.
  int df(Eigen::VectorXd const& parameters, Eigen::MatrixXd& jacobian) const {
    gaussianSumJacobian(view(parameters), first,
                        {jacobian.data(), static_cast<std::size_t>(jacobian.size())});
    return 0;
  }

 private:
  static std::span<double const> view(Eigen::VectorXd const& vector) {
    return {vector.data(), static_cast<std::size_t>(vector.size())};
  }

  std::span<double const> signal;
  int first;
};

using Minimiser = Eigen::LevenbergMarquardt<GaussianSumProblem, double>;

Minimiser::Parameters settings() {
  Minimiser::Parameters settings;
  settings.factor = 100.0;  // bound of the first step, in norms of the scaled start
  settings.maxfev = 20;     // evaluations of the sum
  settings.ftol = 0.001;    // relative, on the sum of squares
  settings.xtol = 0.001;    // relative, on the parameters
  settings.gtol = 0.0;
  settings.epsfcn = 0.0;  // step of numerical derivatives, which are not used
  return settings;
}

}  // namespace

int refineGaussians(std::span<double const> signal, int first, std::span<double> parameters) {
  if (!std::all_of(parameters.begin(), parameters.end(), [](double value) { return std::isfinite(value); })) {
    return 0;
  }
  Eigen::Map<Eigen::VectorXd> start(parameters.data(), static_cast<Eigen::Index>(parameters.size()));
  Eigen::VectorXd solution = start;
  GaussianSumProblem problem(signal, first);
  Minimiser minimiser(problem);
  minimiser.parameters = settings();
  minimiser.minimize(solution);  // refuses, without an evaluation, fewer samples than parameters
  start = solution;
  return static_cast<int>(minimiser.nfev);
}

}  // namespace FullWaveform
