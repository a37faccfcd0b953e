// The driver in every mode, with blocks whose arrays may have different lengths.
#include <cmath>
#include <filesystem>

#include <fullwaveform/driver/PeakDetectionFamily.h>

#include "support/Inputs.h"

namespace FullWaveform {
namespace {

using namespace Fuzz;
using Driver = PeakDetectionFamily<unsigned short>;

/// The arguments of `apply`. The rows are contiguous in a heap block of exactly their size, or come from an
/// accessor that returns null for some of them.
struct Block {
  Testing::Samples storage;
  std::unique_ptr<unsigned short[]> memory;
  Driver::Waveforms waveforms;
  std::vector<unsigned short> counts;
  std::vector<double> shotTimes;
  std::vector<double> sblTimes;
  std::vector<unsigned char> channelFlags;
  int noise = 0;

  ShotMap run(Driver& driver) const {
    return driver.apply(waveforms, Kestra::MultiArray<1, unsigned short>(counts),
                        Kestra::MultiArray<1, double>(shotTimes), Kestra::MultiArray<1, double>(sblTimes),
                        Kestra::MultiArray<1, unsigned char>(channelFlags), noise, "");
  }
};

/// Few different times, so that several rows belong to one shot, and some invalid ones.
double timeFrom(Bytes& bytes) {
  unsigned int const choice = bytes.upTo(7);
  return choice < 6 ? static_cast<double>(choice) : bytes.number();
}

/// Layout: noise (two bytes), rows, columns, access to the rows, then per array its length minus the number
/// of rows (from -2 to 3) and its values; the rest are samples.
Block blockFrom(Bytes& bytes) {
  Block block;
  block.noise = bytes.raw<std::int16_t>();
  std::size_t const rows = bytes.upTo(12);
  std::size_t const columns = bytes.upTo(120);
  std::uint8_t const access = bytes.byte();
  auto const length = [&] {
    return rows + std::min<std::size_t>(bytes.upTo(5), rows + 3) - std::min<std::size_t>(2, rows);
  };
  block.counts.resize(length());
  std::generate(block.counts.begin(), block.counts.end(), [&] {
    unsigned int const choice = bytes.byte();
    return static_cast<unsigned short>(choice < 250 ? std::min<std::size_t>(choice, columns) : choice * 257);
  });
  block.shotTimes.resize(length());
  std::generate(block.shotTimes.begin(), block.shotTimes.end(), [&] { return timeFrom(bytes); });
  block.sblTimes.resize(length());
  std::generate(block.sblTimes.begin(), block.sblTimes.end(), [&] { return timeFrom(bytes); });
  block.channelFlags.resize(length());
  std::generate(block.channelFlags.begin(), block.channelFlags.end(),
                [&] { return static_cast<unsigned char>(bytes.upTo(2)); });
  block.storage = bytes.samples();
  block.storage.resize(rows * columns);
  block.memory = Testing::onHeap(block.storage);
  using Array = Kestra::MemArray<2, unsigned short>;
  unsigned short const* const first = block.memory.get();
  if ((access & 7U) == 7U) {
    return block;  // an empty pointer
  }
  block.waveforms = Driver::Waveforms(
      (access & 1U) == 0 ? new Array({rows, columns}, first)
                         : new Array({rows, columns}, [=](std::size_t row) -> unsigned short const* {
                             return (access & 8U) != 0 && row % 3 == 1 ? nullptr : first + row * columns;
                           }));
  return block;
}

void requireValid(ShotMap const& shots, BlockReport const& report) {
  std::size_t waves = 0;
  for (auto const& [time, shot] : shots) {
    require(!std::isnan(time), "a shot has a time");
    require(shot.waves.size() == shot.rows.size(), "every waveform has a row");
    require(!shot.waves.empty(), "a shot has a waveform");
    for (WavePtr const& wave : shot.waves) {
      ++waves;
      double previous = wave->globalStart;
      for (Peak const& peak : wave->peaks) {
        require(std::isnan(peak.idx) || (peak.idx >= previous && peak.idx <= wave->globalEnd),
                "echoes are sorted and inside the signal");
        previous = std::isnan(peak.idx) ? previous : peak.idx;
        require(peak.quality == GOOD, "all echoes are good");
      }
    }
  }
  std::size_t kept = 0;
  for (RowState const state : report.rowStates) {
    kept += state == RowState::Kept || state == RowState::TooLongToDeconvolve ||
                    state == RowState::MergedIntoOtherChannel
                ? 1
                : 0;
  }
  require(kept == waves, "the map holds the waveforms of all rows that are kept");
}

std::string textOf(ShotMap const& shots) {
  std::string text;
  for (auto const& [time, shot] : shots) {
    for (WavePtr const& wave : shot.waves) {
      text += wave->print();
    }
  }
  return text;
}

}  // namespace
}  // namespace FullWaveform

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  Fuzz::Bytes bytes(data, size);
  auto const modus = static_cast<FWFModus>(bytes.upTo(4));
  unsigned int const maxLength = bytes.upTo(120);
  ScannerDevice const scanner = Fuzz::scannerFrom(bytes);
  Block const block = blockFrom(bytes);
  Driver driver(modus, scanner, "/dev/null", "scan.las", maxLength);
  ShotMap const shots = block.run(driver);
  requireValid(shots, driver.lastBlock());
  Fuzz::require(textOf(block.run(driver)) == textOf(shots), "repeating a block gives the same echoes");
  return 0;
}
