#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

/// A column of a result: its name, and the function that reads its value from a record. The type of that
/// value is the type of the column.
template <class Getter>
struct ResultColumn {
  char const* name;
  Getter get;
};

/// Type of the values of a column.
template <class Column, class Record>
using ColumnValue = decltype(std::declval<Column const&>().get(std::declval<Record const&>()));

/// How a value is stored: NumPy cannot refer to the elements of a std::vector<bool>.
template <class Value>
using StoredValue = std::conditional_t<std::is_same_v<Value, bool>, std::uint8_t, Value>;

/// Leaves new elements uninitialised: every value of a column is set once.
template <class Value>
struct UninitialisedAllocator : std::allocator<Value> {
  template <class Other>
  struct rebind {
    using other = UninitialisedAllocator<Other>;
  };

  template <class Element>
  void construct(Element* element) noexcept {
    ::new (static_cast<void*>(element)) Element;
  }
  template <class Element, class... Arguments>
  void construct(Element* element, Arguments&&... arguments) {
    ::new (static_cast<void*>(element)) Element(std::forward<Arguments>(arguments)...);
  }
};

template <class Value>
using ColumnValues = std::vector<Value, UninitialisedAllocator<Value>>;

template <class Record, class... Columns>
std::tuple<ColumnValues<StoredValue<ColumnValue<Columns, Record>>>...> emptyColumns(
    std::tuple<Columns...> const&);

/// The values of a list of columns, one per record.
///
/// @tparam Record   type from which the columns are read
/// @tparam columns  a tuple of `ResultColumn`
template <class Record, auto const& columns>
class ColumnTable {
 public:
  ColumnTable() = default;
  /// A table whose values are to be set.
  explicit ColumnTable(std::size_t rows) { resize(rows); }

  void reserve(std::size_t rows) {
    forEach([rows](auto const& /*column*/, auto& values) { values.reserve(rows); });
  }

  /// Changes the number of rows; the values of new ones are to be set.
  void resize(std::size_t rows) {
    forEach([rows](auto const& /*column*/, auto& values) { values.resize(rows); });
  }

  void set(std::size_t row, Record const& record) {
    forEach([&](auto const& column, auto& values) { values[row] = column.get(record); });
  }

  void append(Record const& record) {
    forEach([&](auto const& column, auto& values) { values.push_back(column.get(record)); });
  }

  /// Calls `visit(column, values)` for every column, in the order of the list.
  template <class Visitor>
  void forEach(Visitor const& visit) {
    std::apply(
        [&](auto const&... column) {
          std::apply([&](auto&... values) { (visit(column, values), ...); }, storage);
        },
        columns);
  }

 private:
  decltype(emptyColumns<Record>(columns)) storage;
};

/// NumPy's name of an arithmetic type.
template <class Value>
std::string numpyTypeName() {
  if constexpr (std::is_same_v<Value, bool>) {
    return "bool";
  } else {
    static_assert(std::is_arithmetic_v<Value>);
    std::string const kind = std::is_floating_point_v<Value> ? "float"
                             : std::is_signed_v<Value>       ? "int"
                                                             : "uint";
    return kind + std::to_string(8 * sizeof(Value));
  }
}
