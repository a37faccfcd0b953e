#include <string>

#include <fullwaveform/scanner/ScannerDevice.h>
#include <fullwaveform/scanner/SpeedOfLight.h>
#include <fullwaveform/text/Number.h>

namespace FullWaveform {
namespace {

constexpr double nanosecondsPerSecond = 1e9;

std::string nanoseconds(double seconds) {
  return shortestText(seconds * nanosecondsPerSecond);
}

std::string systemWaveText(ScannerDevice const& scanner) {
  return scanner.expsum_a ? "System-wave available"
                          : "No system-wave! (Richardson&Lucy and Hybrid not possible)";
}

std::string reflectanceText(ScannerDevice::ReflectanceTable const& table) {
  return table && !table->empty() ? "refl_tableC: " + shortestText((*table)[0]) + "...\n"
                                  : "no refl_tableC\n";
}

}  // namespace

std::string ScannerDevice::speak() const {
  // Half the bin length is in metres although its label says centimetres: the report's format is fixed.
  return "t_ref: " + nanoseconds(t_ref) + " [ns]\n" +                      //
         "group_velocity: " + shortestText(group_velocity) + " [m/s]\n" +  //
         "sampling_time: " + nanoseconds(sampling_time) +                  //
         " [ns] or as bin-length / 2.0: " + shortestText(group_velocity * sampling_time * 0.5) +
         "[cm]\n" +                                                                                   //
         "unambiguous_range: " + shortestText(unambiguous_range) + " [m]\n" +                         //
         "wavelength: " + shortestText(static_cast<double>(wavelength)) + " [nm]\n" +                 //
         "serial: " + serial + "\n" +                                                                 //
         "type_id: " + type_id + "\n" +                                                               //
         "build: " + build + "\n" +                                                                   //
         "BufferSize: " + std::to_string(buffer_size) + "\n" +                                        //
         "NoiseLevelForMTACalculation: " + shortestText(noise_level_for_mta) + " [dB]\n" +            //
         "WindowEchoRange: " + shortestText(halfSpeedOfLightInAir * window_echo_time) + " [m]\n" +    //
         "getMTALengthAsTime: " + shortestText(getMTALengthAsTime() * speedOfLightInAir) + "[m]\n" +  //
         "bin_shift: " + shortestText(bin_shift) + " [-]\n" +                                         //
         "AfterPulse: offset: " + std::to_string(afterpulse_offset) +                                 //
         " width: " + std::to_string(afterpulse_width) + " [-]\n" +                                   //
         "SizeSys: " + std::to_string(size_sys) + "  [-]\n" +                                         //
         "UpSampling: " + std::to_string(up_sampling) + " [-]\n" +                                    //
         systemWaveText(*this) + " [-]\n" +                                                           //
         "ampl_unit: " + shortestText(ampl_unit) + "\n" +                                             //
         "refl_delta: " + shortestText(refl_delta) + "\n" +                                           //
         reflectanceText(refl_tableC);
}

}  // namespace FullWaveform
