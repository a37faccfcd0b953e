#include <native/pulsewaves/ChunkTable.h>

#include <memory>

#include <native/pulsewaves/NumberDecoder.h>

namespace PulseWaves {

ChunkTable decodeChunkTable(std::span<std::uint8_t const> coded, std::size_t chunks, bool withPulses) {
  ChunkTable table;
  table.intact = true;
  if (chunks == 0) {
    return table;  // an empty table has no stream
  }
  RangeDecoder stream(coded);
  auto const numbers = std::make_unique<NumberDecoder<32, 2>>();
  numbers->reset();
  std::int32_t pulses = 0;
  std::int32_t bytes = 0;
  for (std::size_t chunk = 0; chunk < chunks && !stream.failed(); ++chunk) {
    if (withPulses) {
      pulses = numbers->decode(stream, pulses, 0);
      table.pulses.push_back(static_cast<std::uint32_t>(pulses));
    }
    bytes = numbers->decode(stream, bytes, 1);
    table.bytes.push_back(static_cast<std::uint32_t>(bytes));
  }
  table.consumed = stream.consumed();
  table.intact = !stream.failed();
  return table;
}

}  // namespace PulseWaves
