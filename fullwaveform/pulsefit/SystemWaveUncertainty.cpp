#include <fullwaveform/pulsefit/SystemWaveUncertainty.h>

#include <cstddef>
#include <vector>

#include <fullwaveform/deconvolution/SystemWaveShape.h>
#include <fullwaveform/pulsefit/EchoInformation.h>

namespace FullWaveform {

struct SystemWaveUncertainty::Memory {
  explicit Memory(ScannerDevice const& device) : shape(device) {}

  void add(FittedSamples const& waveform, double position, double height) {
    std::size_t const first = shape.cover(position, waveform.samples.size(), covered);
    PulseColumns const columns = information.add({.first = first,
                                                  .count = covered.size(),
                                                  .parameters = 2,
                                                  .maximum = shape.maximumOf(position),
                                                  .isClipped = waveform.isClipped(first, covered.size())});
    for (std::size_t i = 0; i < covered.size(); ++i) {
      if (waveform.samples[first + i] < waveform.limit) {
        columns.value[i] = covered[i].wave;
        columns.byLag[i] = -height * covered[i].slope;
      }
    }
  }

  SystemWaveShape shape;
  EchoInformation information;
  std::vector<SystemWaveShape::Value> covered;
};

SystemWaveUncertainty::SystemWaveUncertainty(ScannerDevice const& device)
    : memory(std::make_unique<Memory>(device)) {}

SystemWaveUncertainty::~SystemWaveUncertainty() = default;

void SystemWaveUncertainty::apply(FittedSamples const& waveform, SampleNoise const& noise,
                                  std::span<double const> positions, std::span<double const> heights,
                                  std::span<EchoUncertainty> result) {
  memory->information.begin(waveform.samples.size(), noise.covariance.size() - 1);
  for (std::size_t k = 0; k < positions.size(); ++k) {
    memory->add(waveform, positions[k], heights[k]);
  }
  memory->information.solve(noise, result);
}

}  // namespace FullWaveform
