#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <native/echotable/BlockEchoes.h>

namespace EchoTable {

/// The discrete returns of one shot, by their time along its pulse.
///
/// Returns of all waveforms of the shot count: a scanner lists those of one channel only.
class ShotReturns {
 public:
  ShotReturns(Waveforms const& waveforms, DiscreteReturns const& returns)
      : waveforms(waveforms), returns(returns) {}

  /// Take the returns of a shot.
  ///
  /// @param firstRow  first waveform of the shot
  /// @param indices   of its returns, ascending
  void take(std::int64_t firstRow, std::span<std::int64_t const> indices);

  /// Index of the return that is nearest to an echo, -1 if none is in its reach: half its width at half its
  /// maximum, or one sample. Of two equally near ones the earlier one is chosen.
  [[nodiscard]] std::int64_t nearestTo(FoundEcho const& echo) const;

 private:
  struct TimedReturn {
    double time;  ///< ps after the first sample of the first waveform of the shot
    std::int64_t index;
  };

  /// Time of the first sample of a row, ps after that of the shot's first waveform; 0 without a direction.
  [[nodiscard]] double beginOf(std::int64_t row) const;
  /// Largest distance of the return of an echo, ps.
  [[nodiscard]] double reachOf(FoundEcho const& echo) const;

  Waveforms const waveforms;
  DiscreteReturns const returns;
  std::int64_t first = 0;
  std::vector<TimedReturn> ordered;
};

}  // namespace EchoTable
