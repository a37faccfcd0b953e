#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include <native/pulsewaves/SymbolModel.h>

namespace PulseWaves {

/// Most symbols that a model of a lane decodes before it is reset.
constexpr std::size_t maxLaneSymbols = 4096;

/// What an update of a model does that does not depend on the symbols.
struct ModelUpdate {
  std::uint32_t scale;  // 2^31 / total of the counts
  std::uint32_t cycle;  // symbols until the next update
};

/// The updates of a model of `size` symbols in their order.
template <class Model, std::size_t size>
struct UpdateSchedule {
  static constexpr std::size_t count = [] {
    std::size_t updates = 1;
    std::size_t symbols = Model::firstCycle;
    for (std::uint32_t cycle = Model::firstCycle; symbols <= maxLaneSymbols; ++updates) {
      cycle = Model::nextCycle(cycle);
      symbols += cycle;
    }
    return updates;
  }();

  static constexpr std::array<ModelUpdate, count> updates = [] {
    std::array<ModelUpdate, count> found{};
    std::uint32_t total = size;
    std::uint32_t cycle = Model::firstCycle;
    for (ModelUpdate& update : found) {
      total += cycle;
      cycle = Model::nextCycle(cycle);
      update = {0x80000000U / total, cycle};
    }
    return found;
  }();

  static_assert(size + maxLaneSymbols < std::size_t{1} << Model::probabilityBits, "counts are not halved");
};

/// The models of the places in the classes 0 to 8 of differences, for one lane.
///
/// All in one table, in which class k > 0 starts at entry 2^k, and class 0 at the first one. The bit model of
/// class 0 is a model of two symbols with probabilities of 13 bits.
struct PlaceModels {
  static constexpr std::size_t classes = 9;
  static constexpr std::size_t entries = 512;

  std::array<std::uint16_t, entries> limits;
  std::uint16_t end = 0;  // read together with the last limit
  std::array<std::uint16_t, entries> counts;
  std::array<std::uint16_t, classes> left;     // symbols until the next update
  std::array<std::uint16_t, classes> updates;  // so far

  static constexpr std::size_t firstEntry(std::size_t k) { return k == 0 ? 0 : std::size_t{1} << k; }
  static constexpr std::size_t entriesOf(std::size_t k) { return k == 0 ? 2 : std::size_t{1} << k; }
};

}  // namespace PulseWaves
