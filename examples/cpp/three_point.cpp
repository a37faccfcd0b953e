#include <iostream>

#include <fullwaveform/FullWaveform.h>

int main() {
  using namespace FullWaveform;
  unsigned short const samples[] = {5, 50, 60, 5, 5};
  WavePtr const wave(new WavePoints<unsigned short>(samples, 0, 0.0, 0.0, 5, 10, ScannerDevice()));
  FittingGaussVia3Points<unsigned short, ZeroCrossing>().apply(samples, wave);
  std::cout << "signal from sample " << wave->globalStart << " to " << wave->globalEnd << ", maximum "
            << wave->maxAmplitude << " at sample " << wave->idxOfMaxAmplitude << '\n';
  for (Peak const& echo : wave->peaks) {
    std::cout << "echo of " << echo.amplitude << " counts at sample " << echo.idx << '\n';
  }
}
