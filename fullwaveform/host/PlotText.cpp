#include <fullwaveform/host/PlotText.h>

#include <algorithm>
#include <cstddef>

namespace OrvikPDF {
namespace {

bool isContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

/// Bytes that the character with this first byte has; 0 when none begins so.
std::size_t lengthOf(unsigned char first) {
  if (first < 0x80U) {
    return 1;
  }
  if (first >= 0xC2U && first <= 0xDFU) {
    return 2;
  }
  if ((first & 0xF0U) == 0xE0U) {
    return 3;
  }
  return first >= 0xF0U && first <= 0xF4U ? 4 : 0;
}

/// Forms of three and four bytes that stand for no character: overlong ones, surrogates, too large ones.
bool isForbidden(unsigned char first, unsigned char second) {
  return (first == 0xE0U && second < 0xA0U) || (first == 0xEDU && second > 0x9FU) ||
         (first == 0xF0U && second < 0x90U) || (first == 0xF4U && second > 0x8FU);
}

/// Length of the character at the front, 0 when there is none.
std::size_t characterAtFront(std::string_view text) {
  std::size_t const length = lengthOf(static_cast<unsigned char>(text.front()));
  if (length == 0 || length > text.size()) {
    return 0;
  }
  std::string_view const rest = text.substr(1, length - 1);
  if (!std::all_of(rest.begin(), rest.end(), isContinuation)) {
    return 0;
  }
  bool const forbidden =
      length > 2 && isForbidden(static_cast<unsigned char>(text[0]), static_cast<unsigned char>(text[1]));
  return forbidden ? 0 : length;
}

bool isControl(char c) {
  auto const byte = static_cast<unsigned char>(c);
  return byte < 0x20U || byte == 0x7FU;
}

}  // namespace

std::string drawableText(std::string_view text) {
  std::string drawable;
  while (!text.empty()) {
    std::size_t const length = characterAtFront(text);
    if (length == 0) {
      drawable += '?';
    } else if (isControl(text.front())) {
      drawable += ' ';
    } else {
      drawable += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return drawable;
}

}  // namespace OrvikPDF
