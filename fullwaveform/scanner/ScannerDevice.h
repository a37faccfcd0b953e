#pragma once

#include <complex>
#include <cstdint>
#include <string>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/Grid.h>
#include <fullwaveform/host/StrongPtr.h>
#include <fullwaveform/scanner/ExtraAttributes.h>

namespace FullWaveform {

/// The laser scanner that recorded a block of waveforms; every extraction method is built from one.
///
/// Filled once, from attributes of two grids. A missing attribute is reported on the console, stops reading
/// and leaves the other members at the defaults given here; see `operator()()`.
class FULLWAVEFORM_EXPORT ScannerDevice : public ExtraAttributes {
 public:
  using ComplexTable = Holdex::StrongPtr<Holdex::Chunk<std::complex<double>>>;
  using ReflectanceTable = Holdex::DynamicPtr<Holdex::Chunk<float>, Holdex::ChunkBase>;

  double noise_level_for_mta = 8.6;                 ///< dB
  double window_echo_time = 6.673156177586246e-09;  ///< s, 1.0 m of range
  std::uint32_t buffer_size = 200;                  ///< samples
  std::uint32_t size_sys = 12;                      ///< length of the system wave, samples
  std::uint32_t up_sampling = 5;                    ///< steps per sample in the deconvolution
  double t_ref = 0.0;                               ///< s, origin of the SBL times
  double group_velocity = 0.0;                      ///< m/s
  double sampling_time = 0.0;                       ///< s per sample
  double unambiguous_range = 0.0;                   ///< m
  float wavelength = 0.0F;                          ///< nm
  std::string serial;
  std::string type_id;
  std::string build;
  ComplexTable expsum_a;  ///< coefficients of the system wave
  ComplexTable expsum_b;  ///< exponents of the system wave, 1/s
  double refl_delta = 0.1373470495519926;
  ReflectanceTable refl_tableC;
  double ampl_unit = 0.009999999776482582;  ///< single-precision 0.01, intentionally widened to double
  bool complete = false;                    ///< all required attributes were found

  /// A scanner with default values, not complete.
  ScannerDevice();

  /// Reads the scanner.
  ///
  /// @param scannerGrid   with the scanner's own attributes
  /// @param waveformGrid  with the fields "Waveforms" and "SBL_Time" in
  ///                      "StandardCartesianChart3D"; if empty, the
  ///                      sampling interval, t_ref and the exponential sums keep their defaults
  ScannerDevice(Kestra::Grid const& scannerGrid, Holdex::StrongPtr<Kestra::Grid> const& waveformGrid);

  /// Whether all required attributes were found.
  bool operator()() const { return complete; }

  /// Travel time over the unambiguous range, s; not finite for a group velocity of 0.
  [[nodiscard]] double getMTALengthAsTime() const;

  /// Report of every parameter with its unit, one line each.
  [[nodiscard]] std::string speak() const;
};

}  // namespace FullWaveform
