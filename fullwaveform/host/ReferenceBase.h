#pragma once

#include <atomic>
#include <cstdint>

#include <fullwaveform/Export.h>

namespace Holdex {

class InterfaceBase;

/// Reference counts of one object. Outlives the object as long as weak pointers refer to it.
///
/// All strong pointers together count as one weak reference, released with the object. Thread-safe.
class FULLWAVEFORM_EXPORT ReferenceRecord {
 public:
  explicit ReferenceRecord(InterfaceBase* owner) noexcept : object(owner) {}

  void addStrong() noexcept;
  /// Takes a strong reference if the object still exists; returns whether it did.
  bool tryAddStrong() noexcept;
  /// Deletes the object with the last strong reference.
  void releaseStrong() noexcept;
  void addWeak() noexcept;
  void releaseWeak() noexcept;
  [[nodiscard]] std::uint32_t strongCount() const noexcept;

 private:
  InterfaceBase* object;
  std::atomic<std::uint32_t> strong{0};
  std::atomic<std::uint32_t> weak{1};
};

/// Base of everything that the framework's pointers refer to: identity, serial number and reference counts.
///
/// Objects are shared, not copied. No StrongPtr may refer to an object on the stack.
class FULLWAVEFORM_EXPORT InterfaceBase {
 public:
  InterfaceBase();
  InterfaceBase(InterfaceBase const&) = delete;
  InterfaceBase& operator=(InterfaceBase const&) = delete;

  /// First virtual function of the framework's objects; does nothing.
  virtual void referenced();
  virtual ~InterfaceBase();

  /// Taken from PointerID, one step per object.
  [[nodiscard]] std::uint64_t identity() const noexcept { return objectIdentity; }
  /// Number of objects created before it in this process.
  [[nodiscard]] std::uint64_t serial() const noexcept { return serialNumber; }
  [[nodiscard]] ReferenceRecord& record() const noexcept { return *referenceRecord; }

 private:
  std::uint64_t objectIdentity;
  std::uint64_t serialNumber;
  ReferenceRecord* referenceRecord;
};

/// Reference-counted base of the class T: `class Wave : public Holdex::ReferenceBase<Wave>`.
template <class T>
class ReferenceBase : public InterfaceBase {};

}  // namespace Holdex
