#include <fullwaveform/model/Peak.h>

#include <type_traits>

#include <fullwaveform/scanner/SpeedOfLight.h>
#include <fullwaveform/text/Number.h>

namespace FullWaveform {

static_assert(std::is_trivially_copyable_v<Peak>);

namespace {

std::string qualityText(QUALITY quality) {
  switch (quality) {
    case GOOD:
      return "GOOD";
    case AFTERPULS:
      return "AFTERPULS";
    case EXCEEDS_RANGE:
      return "Exceeds Range";
  }
  return "Unknown";
}

}  // namespace

std::string convertType(TYPE type) {
  switch (type) {
    case UNBORN:
      return "Unborn peak";
    case RAW:
      return "Raw peak from signal";
    case GAUSS_3POINTS:
      return "Fitting gauss curve with three points";
    case GAUSS_DECOMPOSITION_1:
      return "First loop of gaussian decomposition";
    case GAUSS_DECOMPOSITION_2:
      return "Second loop of gaussian decomposition";
    case RICHARDSON_LUCY:
      return "Richardson-Lucy deconvolution";
    case ONLINE_OWP:
      return "Online Waveform Processed points (Riegl-OWP)";
    case FLAW:
      return "Flaw echo/noise";
  }
  return "Unknown ";  // with a trailing blank
}

Peak::Peak(double const& amplitude, double const& idx, double const& time, TYPE const& type,
           QUALITY const& quality, double const& std, unsigned char const& classification,
           float const& reflectance)
    : amplitude(static_cast<float>(amplitude)),
      idx(idx),
      time(time),
      quality(quality),
      type(type),
      std(std),
      classification(classification),
      reflectance(reflectance) {}

double Peak::getIdx(double const& offset) const {
  return idx + offset;
}

double Peak::getIdxAsTime(double const& samplingTime, double const& offset) const {
  return (idx + offset) * samplingTime;
}

::std::string Peak::print() const {
  return "\t\t\ta=" + shortestText(amplitude) + " idx=" + shortestText(idx) +
         " time=" + shortestText(time * halfSpeedOfLightInAir) + "[m] std=" + shortestText(std) +
         " type=" + convertType(type) + " Qual=" + qualityText(quality) +
         " Refl=" + shortestText(reflectance) + "\n";
}

}  // namespace FullWaveform
