#include <cstddef>
#include <fstream>
#include <string>

#include <fullwaveform/model/AsciiExport.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/SpeedOfLight.h>
#include <fullwaveform/text/Number.h>

namespace FullWaveform {
namespace {

std::string signedText16(unsigned short value) {
  return signedText(static_cast<std::int32_t>(value));
}

template <class T>
std::string analysisLines(WavePoints<T> const& wave) {
  // The labels are fixed texts: the noise is in counts although its label says dB. The time of the maximum is
  // multiplied by the full speed of light, so it is a path length; peaks print the one-way range.
  return "bin_shift: " + shortestText(wave.binShift) + " [-]\n" +                                         //
         "Length: " + signedText(wave.length) + " [-]\n" +                                                //
         "Noise: " + signedText16(wave.noise) + " [db]\n" +                                               //
         "MaxAmplitude: " + signedText16(wave.maxAmplitude) + " [-]\n" +                                  //
         "MaxAmplitudeDB: " + shortestText(wave.maxAmplitudeDB) + " [db]\n" +                             //
         "IdxOfMaxAmplitude: " + signedText(wave.idxOfMaxAmplitude) + " [-]\n" +                          //
         "TimeOfMaxAmplitude: " + shortestText(wave.timeOfMaxAmplitude * speedOfLightInAir) + " [m]\n" +  //
         "GlobalStart: " + signedText(wave.globalStart) +                                                 //
         " GlobalEnd: " + signedText(wave.globalEnd) + " [-]\n" +                                         //
         "LengthCropped: " + signedText(wave.lengthCropped) + " [-]\n" +                                  //
         "IsLowPower: " + (wave.isLowPower ? "yes" : "no") + "\n" +                                       //
         "shot_time: " + shortestText(wave.shotTime) + " [s]\n" +                                         //
         "sbl_time: " + shortestText(wave.sblTime * 1000000000.0) + " [ns]\n" +                           //
         "damping: " + shortestText(wave.damping) + " [-]\n" +                                            //
         "IsOnline: " + (wave.online ? "Online" : "FWF") + "\n";
}

template <class T>
std::string windowLines(WavePoints<T> const& wave) {
  std::string lines;
  std::size_t k = 0;
  for (auto const& [from, to] : wave.afterPulse) {
    lines += "AfterPulse: " + std::to_string(k++) + " from: " + shortestText(from) +
             " to: " + shortestText(to) + "\n";
  }
  k = 0;
  for (auto const& [start, end] : wave.startEnd) {
    lines +=
        "StartEnd: " + std::to_string(k++) + " from: " + signedText(start) + " to: " + signedText(end) + "\n";
  }
  return lines;
}

}  // namespace

template <class T>
std::string WavePoints<T>::print() const {
  std::string text = analysisLines(*this) + windowLines(*this) + "Peaks: \n";
  for (Peak const& peak : peaks) {
    text += peak.print();
  }
  return text + "#######################";
}

template <class T>
std::string WavePoints<T>::printLengthAtMaxAmplitude(double const& speed) const {
  if (peaks.empty()) {
    return "empty";
  }
  double const first = peaks.front().time;
  double const last = peaks.back().time;
  // S-E subtracts the times, not the distances: the rounded difference of two distances can print other
  // digits.
  return "#" + std::to_string(peaks.size()) +                                  //
         " E:" + shortestText(last * speed * 0.5) +                            //
         " S:" + shortestText(speed * 0.5 * first) +                           //
         " S-E:" + shortestText((last - first) * speed * 0.5) +                //
         " LengthMaxPos: " + shortestText(speed * 0.5 * timeOfMaxAmplitude) +  //
         " T:" + (online ? "Online" : "FWF");
}

template <class T>
void WavePoints<T>::exportToAscii(std::string path, std::string label, double value) const {
  std::ofstream file(path, std::ios::app);
  for (Peak const& peak : peaks) {
    file << asciiLine(peak, label, value);
  }
}

template std::string WavePoints<unsigned short>::print() const;
template std::string WavePoints<unsigned short>::printLengthAtMaxAmplitude(double const&) const;
template void WavePoints<unsigned short>::exportToAscii(std::string, std::string, double) const;

}  // namespace FullWaveform
