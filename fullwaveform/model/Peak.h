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

/// One-line description of a type; "Unknown " (with its blank) for a value that is none.
FULLWAVEFORM_EXPORT std::string convertType(TYPE type);

/// One echo of one waveform: a plain record, copied bytewise.
///
/// The fields hold quality before type while the constructor takes type before quality; both orders are
/// fixed. The field `std` hides the namespace of that name inside this class, hence `::std`.
class FULLWAVEFORM_EXPORT Peak {
 public:
  float amplitude;               ///< digitiser counts; dB once the driver is done
  double idx;                    ///< fractional sample index in the buffer the method worked on
  double time;                   ///< s
  QUALITY quality;               ///< trust mark
  TYPE type;                     ///< how the echo was found
  double std;                    ///< standard deviation of the echo, samples
  unsigned char classification;  ///< class code of the host's echo classification
  float reflectance;

  Peak(double const& amplitude, double const& idx, double const& time, TYPE const& type,
       QUALITY const& quality, double const& std, unsigned char const& classification,
       float const& reflectance);

  /// Index in the full waveform, for a buffer that begins `offset` samples into it.
  [[nodiscard]] double getIdx(double const& offset) const;

  /// Time since the full waveform's first sample, s, with `samplingTime` in s per sample.
  [[nodiscard]] double getIdxAsTime(double const& samplingTime, double const& offset) const;

  /// One line: three tabs, every field with its label (the time as one-way range in metres), a newline.
  [[nodiscard]] ::std::string print() const;
};

}  // namespace FullWaveform
