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
/// Filled once, from attributes of two grids. A missing attribute is reported on the console, ends the
/// reading and leaves the rest at the values given here; `operator()()` tells whether all were there.
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
  double ampl_unit = 0.009999999776482582;  ///< single-precision 0.01, widened; meant
  bool complete = false;                    ///< construction found all it needs

  /// A scanner of which nothing is known yet.
  ScannerDevice();

  /// Reads the scanner.
  ///
  /// @param scannerGrid   carries the scanner's own attributes
  /// @param waveformGrid  carries the fields "Waveforms" and "SBL_Time" in "StandardCartesianChart3D"; may be
  ///                      empty, then the sampling interval, t_ref and the system wave are left out
  ScannerDevice(Kestra::Grid const& scannerGrid, Holdex::StrongPtr<Kestra::Grid> const& waveformGrid);

  /// True when the scanner was read to its end.
  bool operator()() const { return complete; }

  /// Travel time over the unambiguous range, s; not finite for a group velocity of 0.
  [[nodiscard]] double getMTALengthAsTime() const;

  /// Report of every parameter with its unit, a line each.
  [[nodiscard]] std::string speak() const;

 private:
  [[nodiscard]] bool readWaveformGrid(Kestra::Grid const& grid);
  [[nodiscard]] bool readScannerGrid(Kestra::Grid const& grid);
};

}  // namespace FullWaveform
