#include <fullwaveform/text/Number.h>

#include <array>
#include <charconv>

namespace FullWaveform {
namespace {

// The longest shortest-form double has 24 characters ("-2.2250738585072014e-308").
constexpr std::size_t maxNumberLength = 32;

template <class Number>
std::string convert(Number value) {
  std::array<char, maxNumberLength> buffer{};
  auto const [end, status] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  return {buffer.data(), end};
}

}  // namespace

std::string shortestText(double value) {
  return convert(value);
}

std::string shortestText(float value) {
  return convert(value);
}

std::string signedText(std::int32_t value) {
  return convert(value);
}

std::string signedText(std::uint32_t value) {
  return signedText(static_cast<std::int32_t>(value));
}

}  // namespace FullWaveform
