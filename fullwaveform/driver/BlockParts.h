#pragma once

#include <cstddef>

#include <fullwaveform/host/MultiArray.h>

namespace FullWaveform {

/// Division of a block into parts of whole shots, each later than those of the part before.
class BlockParts {
 public:
  /// Rows of a part, unless the last shot has more: they fit into the cache with their echoes.
  static constexpr std::size_t rowsPerPart = 512;

  /// @param shotTimes  s, at least `rows` values; must outlive this object. If they do not ascend, or one is
  ///                   NaN, all rows are one part.
  BlockParts(Kestra::MultiArray<1, double> const& shotTimes, std::size_t rows);

  /// End of the part that starts at a row.
  [[nodiscard]] std::size_t endOfPart(std::size_t first) const;

 private:
  Kestra::MultiArray<1, double> const* shotTimes;
  std::size_t rows;
  bool ascends;
};

}  // namespace FullWaveform
