#include <fullwaveform/model/PrintWave.h>

#include <numeric>
#include <span>
#include <type_traits>
#include <vector>

#include <fullwaveform/host/DataRange.h>
#include <fullwaveform/host/ReferenceBase.h>
#include <fullwaveform/host/StrongPtr.h>
#include <fullwaveform/host/VectorToPDF.h>
#include <fullwaveform/scanner/LogMessage.h>

namespace FullWaveform {
namespace {

using Range = Holdex::StrongPtr<Kestra::DataRange<double>, Holdex::InterfaceBase>;

template <class T>
void addSeries(std::span<T const> data, OrvikPDF::VectorToPDF& plotter) {
  std::vector<double> const y(data.begin(), data.end());
  std::vector<double> x(data.size());
  std::iota(x.begin(), x.end(), 0.0);
  if constexpr (std::is_same_v<T, unsigned short>) {
    plotter.setYRange(Range(new Kestra::DataRange<double>(std::span<double const>(y))));
  }
  plotter.addVector(x, y);
}

}  // namespace

template <class T>
void printWave(T const* data, unsigned int const& count, std::filesystem::path const& file,
               bool const& flag) {
  // The x label says seconds although x is the sample index: the caption is a fixed text.
  OrvikPDF::VectorToPDF plotter(file.string(), flag, "Wave", {"time [s]", "Amplitude dB"}, {Range(), Range()},
                                {10, 5});
  if (data == nullptr || count == 0) {
    logMessage("VectorToPDF::addVector: broken data");
  } else {
    addSeries(std::span<T const>(data, count), plotter);
  }
  static_cast<void>(plotter.write2Pdf(false));
}

template void printWave<unsigned short>(unsigned short const*, unsigned int const&,
                                        std::filesystem::path const&, bool const&);
template void printWave<double>(double const*, unsigned int const&, std::filesystem::path const&,
                                bool const&);

}  // namespace FullWaveform
