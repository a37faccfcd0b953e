#include <fullwaveform/fitting/GaussianRefinement.h>

#include <fullwaveform/fitting/leastsquares/LevenbergMarquardt.h>

namespace FullWaveform {

GaussianRefinement::GaussianRefinement() : minimiser(std::make_unique<LevenbergMarquardt>()) {}

GaussianRefinement::~GaussianRefinement() = default;

int GaussianRefinement::refine(std::span<double const> signal, int first, std::span<double> parameters,
                               WorkMeter* meter) {
  return minimiser->minimise(signal, first, parameters, meter);
}

}  // namespace FullWaveform
