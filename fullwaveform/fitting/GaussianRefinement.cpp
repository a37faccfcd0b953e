#include <fullwaveform/fitting/GaussianRefinement.h>

#include <fullwaveform/fitting/leastsquares/LevenbergMarquardt.h>

namespace FullWaveform {

GaussianRefinement::GaussianRefinement() : minimiser(std::make_unique<LevenbergMarquardt>()) {}

GaussianRefinement::~GaussianRefinement() = default;

int GaussianRefinement::refine(std::span<double const> signal, int first, std::span<double> parameters) {
  return minimiser->minimise(signal, first, parameters);
}

}  // namespace FullWaveform
