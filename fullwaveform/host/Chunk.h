#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/ReferenceBase.h>

namespace Holdex {

/// A shared array of values of one type. The bytes of all existing chunks are counted.
class FULLWAVEFORM_EXPORT ChunkBase : public ReferenceBase<ChunkBase> {
 public:
  ~ChunkBase() override;

  /// Bytes held by the elements of all chunks of the process. Thread-safe.
  static std::size_t memoryTotal() noexcept;

 protected:
  explicit ChunkBase(std::size_t countedBytes) noexcept;

 private:
  std::size_t bytes;
};

/// A chunk with a fixed number of elements of type T: double, float, std::string or std::complex<double>.
template <class T>
class FULLWAVEFORM_EXPORT Chunk : public ChunkBase {
 public:
  /// Elements are value-initialised: zero or an empty string.
  explicit Chunk(std::size_t count) : ChunkBase(count * sizeof(T)), elements(count) {}
  explicit Chunk(std::vector<T> values) : ChunkBase(values.size() * sizeof(T)), elements(std::move(values)) {}

  [[nodiscard]] std::size_t size() const noexcept { return elements.size(); }
  [[nodiscard]] bool empty() const noexcept { return elements.empty(); }
  [[nodiscard]] T* data() noexcept { return elements.data(); }
  [[nodiscard]] T const* data() const noexcept { return elements.data(); }
  T& operator[](std::size_t index) { return elements[index]; }
  T const& operator[](std::size_t index) const { return elements[index]; }
  [[nodiscard]] auto begin() noexcept { return elements.begin(); }
  [[nodiscard]] auto end() noexcept { return elements.end(); }
  [[nodiscard]] auto begin() const noexcept { return elements.begin(); }
  [[nodiscard]] auto end() const noexcept { return elements.end(); }

 private:
  std::vector<T> elements;
};

}  // namespace Holdex
