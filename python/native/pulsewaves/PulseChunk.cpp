#include <native/pulsewaves/PulseChunk.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

#include <native/pulsewaves/ItemDecoders.h>

namespace PulseWaves {

namespace {

constexpr std::size_t maxExtraBytes = 0xFFFF;

void checkSize(Item const& item, std::size_t expected) {
  if (item.bytes != expected) {
    throw std::invalid_argument("item of type " + std::to_string(static_cast<unsigned int>(item.type)) +
                                " with " + std::to_string(item.bytes) + " bytes; expected " +
                                std::to_string(expected));
  }
}

std::unique_ptr<ItemDecoder> decoderOf(Item const& item) {
  switch (item.type) {
    case ItemType::pulse:
      checkSize(item, pulseBytes);
      return std::make_unique<PulseItem>();
    case ItemType::sourceNumber16:
      checkSize(item, 2);
      return std::make_unique<SourceNumberItem<std::uint16_t, 16>>();
    case ItemType::sourceNumber32:
      checkSize(item, 4);
      return std::make_unique<SourceNumberItem<std::uint32_t, 32>>();
    case ItemType::extraBytes:
      checkSize(item, std::clamp<std::size_t>(item.bytes, 1, maxExtraBytes));
      return std::make_unique<ExtraBytesItem>(item.bytes);
  }
  throw std::invalid_argument("unknown item type " + std::to_string(static_cast<unsigned int>(item.type)));
}

std::vector<std::unique_ptr<ItemDecoder>> decodersOf(std::span<Item const> items) {
  if (items.empty() || items.front().type != ItemType::pulse) {
    throw std::invalid_argument("the first item must be a pulse");
  }
  std::vector<std::unique_ptr<ItemDecoder>> decoders;
  for (Item const& item : items) {
    decoders.push_back(decoderOf(item));
  }
  return decoders;
}

std::size_t recordBytes(std::span<Item const> items) {
  std::size_t bytes = 0;
  for (Item const& item : items) {
    bytes += item.bytes;
  }
  return bytes;
}

}  // namespace

PulseChunk decodePulseChunk(std::span<std::uint8_t const> chunk, std::span<Item const> items,
                            std::size_t pulses) {
  auto const decoders = decodersOf(items);
  std::size_t const size = recordBytes(items);
  PulseChunk found;
  if (pulses == 0) {
    return found;
  }
  if (chunk.size() < size) {
    found.truncated = true;
    return found;
  }
  std::vector<std::uint8_t> record(chunk.begin(), chunk.begin() + static_cast<std::ptrdiff_t>(size));
  found.records = record;
  found.pulses = 1;
  found.consumed = size;
  if (pulses == 1) {
    return found;  // no stream follows
  }
  RangeDecoder stream(chunk.subspan(size));
  while (found.pulses < pulses) {
    std::uint8_t* item = record.data();
    for (std::size_t i = 0; i < items.size(); ++i) {
      decoders[i]->decode(stream, item);
      item += items[i].bytes;
    }
    if (stream.failed()) {
      break;
    }
    found.records.insert(found.records.end(), record.begin(), record.end());
    ++found.pulses;
  }
  found.consumed += stream.consumed();
  found.truncated = stream.truncated();
  found.damaged = stream.failed() && !stream.truncated();
  return found;
}

}  // namespace PulseWaves
