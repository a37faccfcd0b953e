#include <native/pulsewaves/PulseWaveforms.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include <native/pulsewaves/NumberDecoder.h>
#include <native/pulsewaves/RangeDecoder.h>

namespace PulseWaves {

namespace {

void checkBits(char const* what, unsigned int bits, std::initializer_list<unsigned int> allowed) {
  if (std::find(allowed.begin(), allowed.end(), bits) == allowed.end()) {
    throw std::invalid_argument(std::to_string(bits) + " bits per " + what);
  }
}

/// Decodes one pulse after the other; keeps the memory of the models.
class Decoder {
 public:
  Decoder(std::span<Sampling const> samplings, DecodedWaveforms& found) : samplings(samplings), found(found) {
    for (Sampling const& sampling : samplings) {
      checkBits("number of segments", sampling.segmentBits, {0, 8, 16});
      checkBits("duration", sampling.durationBits, {0, 8, 16, 32});
      checkBits("number of samples", sampling.countBits, {0, 8, 16, 32});
      checkBits("sample", sampling.sampleBits, {8, 16});
    }
  }

  void decode(std::span<std::uint8_t const> bytes) {
    std::size_t const firstSegment = found.segments.size();
    std::size_t const firstSample = found.samples.size();
    PulseState const state = samplings.empty() ? PulseState::complete : decodeStream(bytes, firstSample);
    if (state != PulseState::complete) {
      found.segments.resize(firstSegment);
      found.samples.resize(firstSample);
    }
    finish(state, firstSample);
  }

  void finish(PulseState state, std::size_t firstSample) {
    found.states.push_back(state);
    found.starts.push_back(firstSample);
  }

 private:
  PulseState decodeStream(std::span<std::uint8_t const> bytes, std::size_t firstSample) {
    RangeDecoder stream(bytes);
    numbers.reset();
    lastDuration = 0;
    lastCount = 0;
    segmentsOfPulse = 0;
    for (std::size_t index = 0; index < samplings.size(); ++index) {
      Sampling const& sampling = samplings[index];
      auto const segments = number(stream, sampling.segmentBits, 1, sampling.segments);
      if (!segments) {
        return stateOf(stream);
      }
      for (std::uint32_t segment = 0; segment < *segments; ++segment) {
        PulseState const state = decodeSegment(stream, index, firstSample);
        if (state != PulseState::complete) {
          return state;
        }
      }
    }
    return stream.failed() ? stateOf(stream) : PulseState::complete;
  }

  PulseState decodeSegment(RangeDecoder& stream, std::size_t index, std::size_t firstSample) {
    Sampling const& sampling = samplings[index];
    std::int32_t duration = 0;
    if (sampling.durationBits != 0) {
      duration = lastDuration = numbers.decode(stream, lastDuration);
    }
    auto const count = number(stream, sampling.countBits, lastCount, sampling.samples);
    if (!count) {
      return stateOf(stream);
    }
    if (sampling.countBits != 0) {
      lastCount = static_cast<std::int32_t>(*count);
    }
    std::size_t const start = found.samples.size();
    // Empty segments are limited, too: they cost as much time.
    if (*count > maxSegmentSamples || start - firstSample + *count > maxPulseSamples ||
        ++segmentsOfPulse > maxPulseSegments) {
      return PulseState::tooLong;
    }
    found.segments.push_back(
        {found.states.size(), index, start, *count, stored(duration, sampling.durationBits)});
    found.samples.resize(start + *count);
    std::uint16_t* const samples = found.samples.data() + start;
    if (sampling.sampleBits == 8) {
      decodeSamples(stream, samples8, samples, *count);
    } else {
      decodeSamples(stream, samples16, samples, *count);
    }
    return stream.failed() ? stateOf(stream) : PulseState::complete;
  }

  template <class SampleDecoder>
  static void decodeSamples(RangeDecoder& shared, SampleDecoder& decoder, std::uint16_t* samples,
                            std::size_t count) {
    decoder.reset();
    // A copy that nothing else refers to stays in registers.
    RangeDecoder stream = shared;
    std::int32_t last = 0;
    for (std::size_t i = 0; i < count; ++i) {
      last = decoder.decode(stream, last);
      samples[i] = static_cast<std::uint16_t>(last);
    }
    shared = stream;
  }

  /// A number of `bits` bits, or `fixed` if it has none; nothing if it does not fit its bits or the stream
  /// ended.
  std::optional<std::uint32_t> number(RangeDecoder& stream, unsigned int bits, std::int32_t prediction,
                                      std::uint32_t fixed) {
    if (bits == 0) {
      return fixed;
    }
    auto const value = static_cast<std::uint32_t>(numbers.decode(stream, prediction));
    bool const fits = bits == 32 || value >> bits == 0;
    return fits && !stream.failed() ? std::optional(value) : std::nullopt;
  }

  /// Durations are signed in a file of samples with any number of bits.
  static std::int32_t stored(std::int32_t duration, unsigned int bits) {
    switch (bits) {
      case 8:
        return static_cast<std::int8_t>(duration);
      case 16:
        return static_cast<std::int16_t>(duration);
      default:
        return duration;
    }
  }

  [[nodiscard]] static PulseState stateOf(RangeDecoder const& stream) {
    return stream.truncated() ? PulseState::truncated : PulseState::damaged;
  }

  std::span<Sampling const> samplings;
  DecodedWaveforms& found;
  NumberDecoder<32> numbers;
  NumberDecoder<8> samples8;
  NumberDecoder<16> samples16;
  std::int32_t lastDuration = 0;
  std::int32_t lastCount = 0;
  std::size_t segmentsOfPulse = 0;
};

}  // namespace

DecodedWaveforms decodeWaveforms(std::span<std::uint8_t const> bytes, std::span<std::int64_t const> offsets,
                                 std::span<std::int64_t const> ends, std::size_t extraBytes,
                                 std::span<Sampling const> samplings) {
  if (offsets.size() != ends.size()) {
    throw std::invalid_argument(std::to_string(ends.size()) + " ends for " + std::to_string(offsets.size()) +
                                " pulses");
  }
  DecodedWaveforms found;
  auto const decoder = std::make_unique<Decoder>(samplings, found);
  for (std::size_t pulse = 0; pulse < offsets.size(); ++pulse) {
    if (found.samples.size() > enoughSamples || found.segments.size() > enoughSegments) {
      break;
    }
    std::int64_t const end = std::min(ends[pulse], static_cast<std::int64_t>(bytes.size()));
    if (offsets[pulse] < 0 || end < offsets[pulse] ||
        extraBytes > static_cast<std::size_t>(end - offsets[pulse])) {
      decoder->finish(PulseState::truncated, found.samples.size());
    } else {
      std::size_t const start = static_cast<std::size_t>(offsets[pulse]) + extraBytes;
      decoder->decode(bytes.subspan(start, static_cast<std::size_t>(end) - start));
    }
  }
  return found;
}

}  // namespace PulseWaves
