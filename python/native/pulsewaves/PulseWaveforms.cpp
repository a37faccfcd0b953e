#include <native/pulsewaves/PulseWaveforms.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include <native/pulsewaves/NumberDecoder.h>
#include <native/pulsewaves/RangeDecoder.h>
#include <native/pulsewaves/SampleLanes.h>

namespace PulseWaves {

namespace {

void checkBits(char const* what, unsigned int bits, std::initializer_list<unsigned int> allowed) {
  if (std::find(allowed.begin(), allowed.end(), bits) == allowed.end()) {
    throw std::invalid_argument(std::to_string(bits) + " bits per " + what);
  }
}

/// Where the stream of a pulse is; nothing if its extra bytes are not all there.
std::optional<std::span<std::uint8_t const>> streamOf(std::span<std::uint8_t const> bytes,
                                                      std::int64_t offset, std::int64_t end,
                                                      std::size_t extraBytes) {
  end = std::min(end, static_cast<std::int64_t>(bytes.size()));
  if (offset < 0 || end < offset || extraBytes > static_cast<std::size_t>(end - offset)) {
    return std::nullopt;
  }
  std::size_t const start = static_cast<std::size_t>(offset) + extraBytes;
  return bytes.subspan(start, static_cast<std::size_t>(end) - start);
}

/// Decodes the numbers of a pulse, between which its samples are.
class PulseStream {
 public:
  RangeDecoder stream{{}};
  std::vector<Segment> segments;       // so far; `pulse` is not set
  std::vector<std::uint16_t> samples;  // of all segments

  void start(std::span<std::uint8_t const> bytes) {
    stream = RangeDecoder(bytes);
    numbers.reset();
    lastDuration = 0;
    lastCount = 0;
    segments.clear();
    samples.clear();
  }

  std::optional<std::uint32_t> numberOfSegments(Sampling const& sampling) {
    return number(sampling.segmentBits, 1, sampling.segments);
  }

  /// Adds a segment, with samples that are not decoded yet.
  PulseState addSegment(Sampling const& sampling, std::size_t index) {
    std::int32_t duration = 0;
    if (sampling.durationBits != 0) {
      duration = lastDuration = numbers.decode(stream, lastDuration);
    }
    auto const count = number(sampling.countBits, lastCount, sampling.samples);
    if (!count) {
      return failure();
    }
    if (sampling.countBits != 0) {
      lastCount = static_cast<std::int32_t>(*count);
    }
    // Empty segments are limited, too: they cost as much time.
    if (*count > maxSegmentSamples || samples.size() + *count > maxPulseSamples ||
        segments.size() == maxPulseSegments) {
      return PulseState::tooLong;
    }
    segments.push_back({0, index, samples.size(), *count, stored(duration, sampling.durationBits)});
    samples.resize(samples.size() + *count);
    return PulseState::complete;
  }

  /// The samples of the segment that was added last.
  std::span<std::uint16_t> segmentSamples() { return std::span(samples).subspan(segments.back().start); }

  /// State after symbols of which some were missing or invalid.
  [[nodiscard]] PulseState failure() const {
    return stream.truncated() ? PulseState::truncated : PulseState::damaged;
  }

 private:
  /// A number of `bits` bits, or `fixed` if it has none; nothing if it does not fit its bits or the stream
  /// ended.
  std::optional<std::uint32_t> number(unsigned int bits, std::int32_t prediction, std::uint32_t fixed) {
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

  NumberDecoder<32> numbers;
  std::int32_t lastDuration = 0;
  std::int32_t lastCount = 0;
};

/// Decodes pulses one by one or several at once; keeps the memory of the models.
class Decoder {
 public:
  static constexpr std::size_t together = SampleLanes::lanes;
  // Longer pulses are decoded one by one, to limit the memory.
  static constexpr std::size_t maxSamplesTogether = std::size_t{1} << 16U;
  static constexpr std::size_t maxSegmentsTogether = std::size_t{1} << 10U;

  Decoder(std::span<std::uint8_t const> bytes, std::span<Sampling const> samplings)
      : bytes(bytes), samplings(samplings) {
    for (Sampling const& sampling : samplings) {
      checkBits("number of segments", sampling.segmentBits, {0, 8, 16});
      checkBits("duration", sampling.durationBits, {0, 8, 16, 32});
      checkBits("number of samples", sampling.countBits, {0, 8, 16, 32});
      checkBits("sample", sampling.sampleBits, {8, 16});
      usesLanes = usesLanes || (sampling.sampleBits == 8 && SampleLanes::areAvailable());
    }
  }

  /// Decodes one pulse.
  void decode(std::optional<std::span<std::uint8_t const>> stream, DecodedWaveforms& found) {
    PulseState state = PulseState::truncated;
    if (stream) {
      pulses[0].start(*stream);
      state = decodeAlone(pulses[0]);
    }
    if (state == PulseState::complete) {
      append(pulses[0], found);
    } else {
      found.states.push_back(state);
      found.starts.push_back(found.samples.size());
    }
  }

  /// Decodes `count` pulses at once, if they are ordinary: complete, and of a limited length.
  ///
  /// @param streamOfPulse  as `streamOf`, for the numbers 0 to `count` - 1
  /// @return whether they are; else `found` does not change
  template <class StreamOfPulse>
  bool decode(std::size_t count, StreamOfPulse const& streamOfPulse, DecodedWaveforms& found) {
    if (!usesLanes) {
      return false;
    }
    for (std::size_t i = 0; i < count; ++i) {
      auto const stream = streamOfPulse(i);
      if (!stream) {
        return false;
      }
      pulses[i].start(*stream);
    }
    std::span<PulseStream> const chosen = std::span(pulses).first(count);
    for (std::size_t index = 0; index < samplings.size(); ++index) {
      if (!decodeSampling(chosen, index)) {
        return false;
      }
    }
    for (PulseStream const& pulse : chosen) {
      append(pulse, found);
    }
    return true;
  }

 private:
  static void append(PulseStream const& pulse, DecodedWaveforms& found) {
    std::size_t const start = found.samples.size();
    for (Segment segment : pulse.segments) {
      segment.pulse = found.states.size();
      segment.start += start;
      found.segments.push_back(segment);
    }
    found.samples.insert(found.samples.end(), pulse.samples.begin(), pulse.samples.end());
    found.states.push_back(PulseState::complete);
    found.starts.push_back(start);
  }

  PulseState decodeAlone(PulseStream& pulse) {
    for (std::size_t index = 0; index < samplings.size(); ++index) {
      auto const segments = pulse.numberOfSegments(samplings[index]);
      if (!segments) {
        return pulse.failure();
      }
      for (std::uint32_t segment = 0; segment < *segments; ++segment) {
        PulseState const state = pulse.addSegment(samplings[index], index);
        if (state != PulseState::complete) {
          return state;
        }
        decodeSamples({&pulse.stream, pulse.segmentSamples()}, samplings[index].sampleBits);
        if (pulse.stream.failed()) {
          return pulse.failure();
        }
      }
    }
    return !samplings.empty() && pulse.stream.failed() ? pulse.failure() : PulseState::complete;
  }

  /// Decodes a sampling of several pulses: their first segments, then their second ones, ...
  bool decodeSampling(std::span<PulseStream> chosen, std::size_t index) {
    std::array<std::uint32_t, together> segments{};
    for (std::size_t i = 0; i < chosen.size(); ++i) {
      segments[i] = chosen[i].numberOfSegments(samplings[index]).value_or(maxSegmentsTogether + 1);
    }
    std::uint32_t const most = *std::max_element(segments.begin(), segments.end());
    if (most > maxSegmentsTogether) {
      return false;
    }
    for (std::uint32_t segment = 0; segment < most; ++segment) {
      std::array<LaneSegment, together> next{};
      std::size_t count = 0;
      for (std::size_t i = 0; i < chosen.size(); ++i) {
        if (segment < segments[i]) {
          PulseStream& pulse = chosen[i];
          if (pulse.addSegment(samplings[index], index) != PulseState::complete ||
              pulse.samples.size() > maxSamplesTogether || pulse.segments.size() > maxSegmentsTogether) {
            return false;
          }
          next[count++] = {&pulse.stream, pulse.segmentSamples()};
        }
      }
      decodeSamples(std::span(next).first(count), samplings[index].sampleBits);
    }
    return std::none_of(chosen.begin(), chosen.end(),
                        [](PulseStream const& pulse) { return pulse.stream.failed(); });
  }

  void decodeSamples(std::span<LaneSegment const> segments, unsigned int bits) {
    if (bits == 8 && SampleLanes::suit(segments, bytes)) {
      lanes.decode(segments, bytes);
      return;
    }
    for (LaneSegment const& segment : segments) {
      decodeSamples(segment, bits);
    }
  }

  void decodeSamples(LaneSegment const& segment, unsigned int bits) {
    if (bits == 8) {
      decodeSamples(segment, samples8);
    } else {
      decodeSamples(segment, samples16);
    }
  }

  template <class SampleDecoder>
  static void decodeSamples(LaneSegment const& segment, SampleDecoder& decoder) {
    decoder.reset();
    // A copy that nothing else refers to stays in registers.
    RangeDecoder stream = *segment.stream;
    std::int32_t last = 0;
    for (std::uint16_t& sample : segment.samples) {
      last = decoder.decode(stream, last);
      sample = static_cast<std::uint16_t>(last);
    }
    *segment.stream = stream;
  }

  std::span<std::uint8_t const> bytes;
  std::span<Sampling const> samplings;
  bool usesLanes = false;
  std::array<PulseStream, together> pulses;
  NumberDecoder<8> samples8;
  NumberDecoder<16> samples16;
  SampleLanes lanes;
};

}  // namespace

DecodedWaveforms decodeWaveforms(std::span<std::uint8_t const> bytes, std::span<std::int64_t const> offsets,
                                 std::span<std::int64_t const> ends, std::size_t extraBytes,
                                 std::span<Sampling const> samplings) {
  if (offsets.size() != ends.size()) {
    throw std::invalid_argument(std::to_string(ends.size()) + " ends for " + std::to_string(offsets.size()) +
                                " pulses");
  }
  constexpr std::size_t together = Decoder::together;
  constexpr std::size_t manySamples = enoughSamples - together * Decoder::maxSamplesTogether;
  constexpr std::size_t manySegments = enoughSegments - together * Decoder::maxSegmentsTogether;
  DecodedWaveforms found;
  auto const decoder = std::make_unique<Decoder>(bytes, samplings);
  auto const stream = [&](std::size_t pulse) {
    return streamOf(bytes, offsets[pulse], ends[pulse], extraBytes);
  };
  std::size_t alone = 0;  // pulses before this one are decoded one by one
  for (std::size_t pulse = 0; pulse < offsets.size();) {
    if (found.samples.size() > enoughSamples || found.segments.size() > enoughSegments) {
      break;
    }
    if (pulse >= alone && found.samples.size() <= manySamples && found.segments.size() <= manySegments) {
      std::size_t const count = std::min(together, offsets.size() - pulse);
      if (decoder->decode(count, [&](std::size_t i) { return stream(pulse + i); }, found)) {
        pulse += count;
        continue;
      }
      alone = pulse + count;
    }
    decoder->decode(stream(pulse), found);
    ++pulse;
  }
  return found;
}

}  // namespace PulseWaves
