#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <native/pulsewaves/NumberDecoder.h>
#include <native/pulsewaves/Pulse.h>
#include <native/pulsewaves/PulseDecoder.h>
#include <native/pulsewaves/RangeDecoder.h>
#include <native/pulsewaves/SymbolModel.h>

namespace PulseWaves {

/// Decodes one item of a record from that of the record before.
class ItemDecoder {
 public:
  virtual ~ItemDecoder() = default;
  /// @param item  bytes of the item before, replaced by those of the next one
  virtual void decode(RangeDecoder& stream, std::uint8_t* item) = 0;
};

class PulseItem : public ItemDecoder {
 public:
  void decode(RangeDecoder& stream, std::uint8_t* item) override {
    Pulse pulse = readPulse(item);
    decoder.decode(stream, pulse);
    writePulse(pulse, item);
  }

 private:
  PulseDecoder decoder;
};

/// Source numbers: the last one, one of those that were replaced lately, or a new one.
template <class Number, std::size_t remembered>
class SourceNumberItem : public ItemDecoder {
 public:
  SourceNumberItem() {
    choice.reset();
    news.reset();
    for (std::size_t i = 0; i < remembered; ++i) {
      earlier[i] = static_cast<Number>(i);
    }
  }

  void decode(RangeDecoder& stream, std::uint8_t* item) override {
    Number number{};
    std::memcpy(&number, item, sizeof number);
    std::uint32_t const symbol = choice.decode(stream);
    if (symbol == 1) {
      earlier[next] = number;
      next = (next + 1) % remembered;
      number = static_cast<Number>(news.decode(stream, static_cast<std::int32_t>(number)));
    } else if (symbol > 1) {
      number = earlier[symbol - 2];
    }
    std::memcpy(item, &number, sizeof number);
  }

 private:
  SymbolModel<remembered + 2> choice;
  NumberDecoder<8 * sizeof(Number)> news;
  std::array<Number, remembered> earlier;
  std::size_t next = 0;
};

class ExtraBytesItem : public ItemDecoder {
 public:
  explicit ExtraBytesItem(std::size_t bytes) : models(bytes) {
    for (SymbolModel<256>& model : models) {
      model.reset();
    }
  }

  void decode(RangeDecoder& stream, std::uint8_t* item) override {
    for (SymbolModel<256>& model : models) {
      *item = static_cast<std::uint8_t>(*item + model.decode(stream));
      ++item;
    }
  }

 private:
  std::vector<SymbolModel<256>> models;
};

}  // namespace PulseWaves
