#include <native/pulsewaves/PulseDecoder.h>

#include <limits>

namespace PulseWaves {

namespace {

// Bits of the symbol that says what differs from the pulse before.
constexpr unsigned int classificationChanged = 1;
constexpr unsigned int intensityChanged = 2;
constexpr unsigned int flagsChanged = 4;
constexpr unsigned int descriptorChanged = 8;
constexpr unsigned int lastChanged = 16;
constexpr unsigned int firstChanged = 32;

/// Times can be any 64-bit numbers; their sums wrap around.
std::int64_t sum(std::int64_t left, std::int64_t right) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(left) + static_cast<std::uint64_t>(right));
}

std::int32_t sum(std::int32_t left, std::int32_t right) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(left) + static_cast<std::uint32_t>(right));
}

}  // namespace

TimeDecoder::TimeDecoder() {
  start.reset();
  multiples.reset();
  differences.reset();
}

std::int64_t TimeDecoder::decode(RangeDecoder& stream, std::int64_t last) {
  return usual == 0 ? withoutUsual(stream, last) : withUsual(stream, last);
}

std::int64_t TimeDecoder::withoutUsual(RangeDecoder& stream, std::int64_t last) {
  switch (start.decode(stream)) {
    case 0:
      return last;
    case 1:
      usual = differences.decode(stream, 0, 0);
      extremes = 0;
      return sum(last, std::int64_t{usual});
    default:
      return static_cast<std::int64_t>(stream.rawBits64());
  }
}

std::int64_t TimeDecoder::withUsual(RangeDecoder& stream, std::int64_t last) {
  constexpr std::int32_t largest = 243;  // factor with a symbol
  constexpr std::int32_t smallest = -10;
  constexpr std::uint32_t same = 254;
  constexpr std::uint32_t unpredicted = 255;

  std::uint32_t const symbol = multiples.decode(stream);
  auto const factor = static_cast<std::int32_t>(symbol);
  if (symbol == unpredicted) {
    return static_cast<std::int64_t>(stream.rawBits64());
  }
  if (symbol == same || symbol == 1) {
    extremes = 0;
    return sum(last, std::int64_t{symbol == same ? usual : differences.decode(stream, usual, 1)});
  }
  bool const extreme = factor == 0 || factor == largest || factor == largest - smallest;
  std::int32_t found = 0;
  if (factor == 0) {
    found = differences.decode(stream, 0, 7);
  } else if (factor <= largest) {
    std::size_t const context = factor < 10 ? 2 : factor < largest ? 3 : 4;
    found = differences.decode(stream, multiple(factor), context);
  } else {
    found = differences.decode(stream, multiple(largest - factor), extreme ? 6 : 5);
  }
  if (extreme) {
    countExtreme(found);
  }
  return sum(last, std::int64_t{found});
}

void TimeDecoder::countExtreme(std::int32_t difference) {
  if (++extremes > 3) {
    usual = difference;
    extremes = 0;
  }
}

std::int32_t TimeDecoder::multiple(std::int32_t factor) const {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(factor) * static_cast<std::uint32_t>(usual));
}

PulseDecoder::PulseDecoder() {
  intensities.reset();
  firsts.reset();
  lasts.reset();
  offsets.reset();
  for (std::size_t axis = 0; axis < 3; ++axis) {
    anchors[axis].reset();
    targets[axis].reset();
  }
}

void PulseDecoder::decode(RangeDecoder& stream, Pulse& pulse) {
  unsigned int const context = changes(stream, pulse);
  pulse.time = times.decode(stream, pulse.time);
  offset(stream, pulse);
  positions(stream, pulse, context);
}

unsigned int PulseDecoder::changes(RangeDecoder& stream, Pulse& pulse) {
  unsigned int positionContext = flagMask != 0 ? 1 : 0;
  std::size_t context = flagMask | descriptorContext;
  unsigned int const change = changed.decode(stream, context);
  if (change == 0) {
    return positionContext;
  }
  if ((change & descriptorChanged) != 0) {
    pulse.descriptor = static_cast<std::uint8_t>(descriptors.decode(stream, context));
    descriptorContext = descriptorContexts.of(pulse.descriptor);
    context = flagMask | descriptorContext;
  }
  std::size_t rangeContext = context;
  if ((change & flagsChanged) != 0) {
    std::size_t const model = flagContexts.of(context << 8U | pulse.flags);
    pulse.flags = static_cast<std::uint8_t>(flags.decode(stream, model));
    flagMask = 128;
    rangeContext |= 256U;
    positionContext |= 2U;
  }
  if ((change & intensityChanged) != 0) {
    pulse.intensity =
        static_cast<std::uint8_t>(intensities.decode(stream, pulse.intensity, descriptorContext));
  }
  if ((change & classificationChanged) != 0) {
    std::size_t const model = classificationContexts.of(context << 8U | pulse.classification);
    pulse.classification = static_cast<std::uint8_t>(classifications.decode(stream, model));
  }
  returning(stream, pulse, change, rangeContext);
  return positionContext;
}

void PulseDecoder::returning(RangeDecoder& stream, Pulse& pulse, unsigned int change, std::size_t context) {
  std::int32_t const span = pulse.lastReturning - pulse.firstReturning;
  if ((change & firstChanged) != 0) {
    pulse.firstReturning = static_cast<std::uint16_t>(firsts.decode(stream, pulse.firstReturning, context));
  }
  std::int32_t const expected =
      std::clamp<std::int32_t>(span + pulse.firstReturning, std::numeric_limits<std::int16_t>::min(),
                               std::numeric_limits<std::int16_t>::max());
  pulse.lastReturning = static_cast<std::uint16_t>(
      (change & lastChanged) != 0 ? lasts.decode(stream, expected, context) : expected);
}

void PulseDecoder::offset(RangeDecoder& stream, Pulse& pulse) {
  std::int32_t const found = offsets.decode(stream, lastOffset.in(descriptorContext), descriptorContext);
  if (found == std::numeric_limits<std::int32_t>::min()) {
    pulse.offset = sum(pulse.offset, static_cast<std::int64_t>(stream.rawBits64()));
    return;
  }
  lastOffset.remember(descriptorContext, found);
  pulse.offset = sum(pulse.offset, std::int64_t{found});
}

void PulseDecoder::positions(RangeDecoder& stream, Pulse& pulse, std::size_t context) {
  std::array<std::int32_t, 3> steps{};
  for (std::size_t axis = 0; axis < 3; ++axis) {
    steps[axis] = anchors[axis].decode(stream, lastAnchor[axis].in(context), context);
    lastAnchor[axis].remember(context, steps[axis]);
    pulse.anchor[axis] = sum(pulse.anchor[axis], steps[axis]);
  }
  for (std::size_t axis = 0; axis < 3; ++axis) {
    pulse.target[axis] = targets[axis].decode(stream, sum(pulse.target[axis], steps[axis]));
  }
}

}  // namespace PulseWaves
