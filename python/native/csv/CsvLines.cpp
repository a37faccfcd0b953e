#include <native/csv/CsvLines.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

namespace Csv {
namespace {

constexpr std::size_t longestNumber = 32;  // characters

template <class Value>
char* writeScientific(char* first, Value value) {
  return std::to_chars(first, first + longestNumber, value, std::chars_format::scientific).ptr;
}

/// A whole number below 1e10 with zeros in place of the digits that its type does not hold: to_chars would
/// write the digits of its exact value.
template <class Value>
char* writeRounded(char* first, Value value) {
  char* const exponent = std::find(first, writeScientific(first, value), 'e');
  auto const zeros = exponent[3] - '0';  // of one digit followed by zeros only, as in 1e+09
  char* const end = std::remove(first, exponent, '.');
  char* const firstDigit = first + (value < 0 ? 1 : 0);
  return std::fill_n(end, zeros - (end - firstDigit - 1), '0');
}

template <class Value>
char* writeFloating(char* first, Value value) {
  if (std::isnan(value)) {
    return std::copy_n("nan", 3, first);  // without a sign
  }
  Value const magnitude = std::abs(value);
  bool const isDecimal = magnitude >= static_cast<Value>(1e-6) && magnitude < static_cast<Value>(1e10);
  if (isDecimal && magnitude >= 2 / std::numeric_limits<Value>::epsilon()) {
    return writeRounded(first, value);
  }
  if (isDecimal || magnitude == 0 || std::isinf(value)) {
    return std::to_chars(first, first + longestNumber, value, std::chars_format::fixed).ptr;
  }
  char* const end = writeScientific(first, value);
  char* const digits = std::find(first, end, 'e') + 2;
  // to_chars writes two digits of the exponent at least.
  return *digits == '0' ? std::copy(digits + 1, end, digits) : end;
}

template <class Value>
char* write(char* first, Value value) {
  if constexpr (std::is_same_v<Value, std::string_view>) {
    return std::copy(value.begin(), value.end(), first);
  } else if constexpr (std::is_floating_point_v<Value>) {
    return writeFloating(first, value);
  } else {
    return std::to_chars(first, first + longestNumber, value).ptr;
  }
}

/// Whether two values have the same text; compared by bits, as NaN and zeros of either sign.
template <class Value>
bool areSame(Value const& a, Value const& b) {
  if constexpr (std::is_same_v<Value, std::string_view>) {
    return a == b;
  } else {
    return std::memcmp(&a, &b, sizeof(Value)) == 0;
  }
}

/// Where the text of a value is.
struct Cell {
  std::size_t begin = 0;
  std::size_t length = 0;
};

/// A copy of constant length takes a fraction of the time; short cells follow each other closely.
void copyCell(char const* from, std::size_t length, char* to) {
  if (length > longestNumber) {
    std::copy_n(from, length, to);
    return;
  }
  std::array<char, longestNumber> cell;
  std::memcpy(cell.data(), from, cell.size());
  std::memcpy(to, cell.data(), cell.size());
}

std::size_t widthOf(Column const& column) {
  auto const* const texts = std::get_if<Texts>(&column);
  return 1 + std::max(longestNumber, texts == nullptr ? 0 : texts->length);
}

}  // namespace

std::string_view Texts::operator[](std::size_t row) const {
  auto const* const first = reinterpret_cast<char const*>(bytes.data()) + row * length;
  return {first, static_cast<std::size_t>(std::find(first, first + length, '\0') - first)};
}

std::string lines(std::vector<Column> const& columns, std::size_t first, std::size_t count) {
  std::size_t const rows =
      columns.empty() ? 0 : std::visit([](auto const& values) { return values.size(); }, columns.front());
  std::size_t const last = first + std::min(count, rows - std::min(first, rows));
  std::size_t widest = 0;
  for (Column const& column : columns) {
    widest += widthOf(column);
  }
  constexpr std::size_t usualCell = 10;  // characters, with the comma
  std::string text(columns.size() * usualCell * (last - first), '\0');
  std::vector<Cell> above(columns.size());
  std::size_t end = 0;
  for (std::size_t row = first; row < last; ++row) {
    if (text.size() < end + widest) {
      text.resize(std::max(2 * text.size(), end + widest));
    }
    char* const begin = text.data();
    for (std::size_t i = 0; i < columns.size(); ++i) {
      std::visit(
          [&](auto const& values) {
            // Values often repeat, and copying a text takes less time than making it.
            if (row > first && areSame(values[row], values[row - 1])) {
              copyCell(begin + above[i].begin, above[i].length, begin + end);
            } else {
              above[i].length = static_cast<std::size_t>(write(begin + end, values[row]) - (begin + end));
            }
          },
          columns[i]);
      above[i].begin = end;
      end += above[i].length;
      begin[end++] = ',';
    }
    begin[end - 1] = '\n';
  }
  text.resize(end);
  return text;
}

}  // namespace Csv
