#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <fullwaveform/driver/ShotMap.h>

/// A shot map laid out as columns: shots ascending, waveforms in order of arrival, echoes in list order.
struct ResultColumns {
  ResultColumns(FullWaveform::ShotMap const& shots, FullWaveform::BlockReport const& trace);

  // one entry per waveform
  std::vector<std::int64_t> row;
  std::vector<std::uint8_t> isLowPower;
  std::vector<double> shotTime;
  std::vector<double> sblTime;
  std::vector<float> damping;
  std::vector<std::uint32_t> idxOfMaxAmplitude;
  std::vector<std::uint16_t> maxAmplitude;
  std::vector<double> binShift;
  std::vector<std::uint32_t> length;
  std::vector<std::uint16_t> noise;
  std::vector<float> maxAmplitudeDB;
  std::vector<double> timeOfMaxAmplitude;
  std::vector<std::uint8_t> online;
  std::vector<std::uint32_t> globalStart;
  std::vector<std::uint32_t> globalEnd;
  std::vector<std::uint32_t> lengthCropped;
  std::vector<double> afterPulseFrom;  ///< not a number where there is no window
  std::vector<double> afterPulseTo;
  std::vector<std::int64_t> segmentCount;
  std::vector<std::int64_t> peakCount;

  // one entry per segment above the noise
  std::vector<std::int64_t> segmentWaveform;
  std::vector<std::uint32_t> segmentStart;
  std::vector<std::uint32_t> segmentEnd;

  // one entry per echo
  std::vector<std::int64_t> peakWaveform;
  std::vector<std::int64_t> peakRow;
  std::vector<float> amplitude;
  std::vector<float> amplitudeCounts;
  std::vector<double> idx;
  std::vector<double> time;
  std::vector<std::uint8_t> quality;
  std::vector<std::uint8_t> type;
  std::vector<double> width;  ///< the field `std`
  std::vector<std::uint8_t> classification;
  std::vector<float> reflectance;

  // one entry per row of the block
  std::vector<std::uint8_t> rowState;

  std::uint32_t mergedIntoOtherChannel;
  std::uint32_t tooLongToDeconvolve;
  FullWaveform::RunStatistics statistics;

 private:
  using Wave = FullWaveform::WavePoints<unsigned short>;

  void resizeWaveforms(std::size_t count);
  void appendWave(Wave const& wave, std::uint32_t blockRow);
  void appendSegments(Wave const& wave, std::int64_t waveform);
  void appendPeak(FullWaveform::Peak const& peak, std::int64_t waveform, std::uint32_t blockRow);

  std::size_t waveformCount = 0;  ///< so far; the columns are as long as the block until all are there
  std::size_t echoCount = 0;      ///< so far
};
