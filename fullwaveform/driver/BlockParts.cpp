#include <fullwaveform/driver/BlockParts.h>

#include <algorithm>

namespace FullWaveform {
namespace {

bool ascend(Kestra::MultiArray<1, double> const& times, std::size_t count) {
  for (std::size_t i = 1; i < count; ++i) {
    // Negated so that NaN is not ascending.
    if (!(times[i - 1] <= times[i])) {
      return false;
    }
  }
  return true;
}

}  // namespace

BlockParts::BlockParts(Kestra::MultiArray<1, double> const& shotTimes, std::size_t rows)
    : shotTimes(&shotTimes), rows(rows), ascends(ascend(shotTimes, rows)) {}

std::size_t BlockParts::endOfPart(std::size_t first) const {
  std::size_t end = ascends ? std::min(first + rowsPerPart, rows) : rows;
  while (end < rows && (*shotTimes)[end] == (*shotTimes)[end - 1]) {
    ++end;
  }
  return end;
}

}  // namespace FullWaveform
