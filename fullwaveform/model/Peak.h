#pragma once

#include <cstdint>
#include <string>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// How an echo was found.
enum TYPE : std::uint32_t {
  UNBORN = 0,
  RAW = 1,
  GAUSS_3POINTS = 2,
  GAUSS_DECOMPOSITION_1 = 3,
  GAUSS_DECOMPOSITION_2 = 4,
  RICHARDSON_LUCY = 5,
  ONLINE_OWP = 6,
  FLAW = 7
};

/// Whether an echo can be trusted.
enum QUALITY : std::uint32_t { GOOD = 0, AFTERPULS = 1, EXCEEDS_RANGE = 2 };

/// One-line description of a type; "Unknown ", with a trailing blank, for any other value.
FULLWAVEFORM_EXPORT std::string convertType(TYPE type);

/// One echo of one waveform; trivially copyable.
///
/// The constructor takes type before quality, although the fields are stored in the
/// opposite order. The field `std` hides the namespace of that name inside this class, hence `::std`.
class FULLWAVEFORM_EXPORT Peak {
 public:
  float amplitude;               ///< counts; dB in the result of the driver
  double idx;                    ///< position, samples
  double time;                   ///< s
  QUALITY quality;               ///< whether it can be trusted
  TYPE type;                     ///< how the echo was found
  double std;                    ///< standard deviation of the echo, samples
  unsigned char classification;  ///< class code, defined by the host
  float reflectance;

  Peak(double const& amplitude, double const& idx, double const& time, TYPE const& type,
       QUALITY const& quality, double const& std, unsigned char const& classification,
       float const& reflectance);

  /// Position in the full waveform if `idx` counts from its sample `offset`.
  [[nodiscard]] double getIdx(double const& offset) const;

  /// Time since the first sample of the full waveform, s; `samplingTime` in s per sample.
  [[nodiscard]] double getIdxAsTime(double const& samplingTime, double const& offset) const;

  /// One line: three tabs, every field with its label (the time as one-way range in metres), a newline.
  [[nodiscard]] ::std::string print() const;
};

}  // namespace FullWaveform
