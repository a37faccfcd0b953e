#pragma once

#include <algorithm>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include <native/pulsewaves/RangeDecoder.h>
#include <native/pulsewaves/SymbolModel.h>

namespace PulseWaves {

/// Decodes numbers of `bits` bits as differences to predictions. Must be reset before its first use.
///
/// A difference is coded as its magnitude class k, for which each context has a model, and its place in the
/// class: 0 or 1 for k = 0, else -(2^k - 1) to -2^(k - 1) and 2^(k - 1) + 1 to 2^k. Models are only prepared
/// when they are used first, because the samples of every segment start with new ones.
template <unsigned int bits, std::size_t contexts = 1>
class NumberDecoder {
  static_assert(bits == 8 || bits == 16 || bits == 32);

 public:
  void reset() {
    preparedContexts.reset();
    preparedPlaces = 0;
    zeroOrOne.reset();
  }

  /// @return the number; for 8 and 16 bits from 0 to 2^bits - 1, for 32 bits signed
  [[gnu::always_inline]] std::int32_t decode(RangeDecoder& stream, std::int32_t prediction,
                                             std::size_t context = 0) {
    if (!preparedContexts[context]) [[unlikely]] {
      magnitudes[context].reset();
      preparedContexts.set(context);
    }
    std::uint32_t const k = magnitudes[context].decode(stream);
    // Unsigned, because a difference may wrap around.
    std::uint32_t const number = static_cast<std::uint32_t>(prediction) + difference(stream, k);
    if constexpr (bits == 32) {
      return static_cast<std::int32_t>(number);
    } else {
      return static_cast<std::int32_t>(number & ((std::uint32_t{1} << bits) - 1));
    }
  }

 private:
  [[gnu::always_inline]] std::uint32_t difference(RangeDecoder& stream, std::uint32_t k) {
    switch (k) {
      case 0:
        return static_cast<std::uint32_t>(zeroOrOne.decode(stream));
      case 1:
        return signedPlace(place(stream, k, places1), k);
      case 2:
        return signedPlace(place(stream, k, places2), k);
      case 3:
        return signedPlace(place(stream, k, places3), k);
      case 4:
        return signedPlace(place(stream, k, places4), k);
      case 5:
        return signedPlace(place(stream, k, places5), k);
      case 6:
        return signedPlace(place(stream, k, places6), k);
      case 7:
        return signedPlace(place(stream, k, places7), k);
      case 32:
        return 0x80000000U;
      default:
        break;
    }
    std::uint32_t const high = place(stream, k, places8[k - 8]);
    std::uint32_t const raw = k > 8 ? stream.rawBits(k - 8) : 0;
    return signedPlace(k > 8 ? high << (k - 8) | raw : high, k);
  }

  template <std::size_t size>
  [[gnu::always_inline]] std::uint32_t place(RangeDecoder& stream, std::uint32_t k,
                                             SymbolModel<size>& model) {
    if ((preparedPlaces >> k & 1U) == 0) [[unlikely]] {
      model.reset();
      preparedPlaces |= std::uint32_t{1} << k;
    }
    return model.decode(stream);
  }

  static std::uint32_t signedPlace(std::uint32_t place, std::uint32_t k) {
    return place >= std::uint32_t{1} << (k - 1) ? place + 1 : place - ((std::uint32_t{1} << k) - 1);
  }

  std::bitset<contexts> preparedContexts;
  std::uint32_t preparedPlaces = 0;  // bit k: class k
  BitModel zeroOrOne;
  std::array<SymbolModel<bits + 1>, contexts> magnitudes;
  SymbolModel<2> places1;
  SymbolModel<4> places2;
  SymbolModel<8> places3;
  SymbolModel<16> places4;
  SymbolModel<32> places5;
  SymbolModel<64> places6;
  SymbolModel<128> places7;
  std::array<SymbolModel<256>, std::min(bits, 31U) - 7> places8;  // class 8 and above
};

}  // namespace PulseWaves
