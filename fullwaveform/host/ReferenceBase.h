#pragma once

#include <atomic>
#include <cstdint>

#include <fullwaveform/Export.h>

namespace Holdex {

class InterfaceBase;

/// Reference counts of one object. Outlives the object as long as weak pointers look at it.
///
/// The strong pointers together hold one weak count, which goes when the object dies. All operations are
/// thread-safe.
class FULLWAVEFORM_EXPORT ReferenceRecord {
 public:
  explicit ReferenceRecord(InterfaceBase* owner) noexcept : object(owner) {}

  void addStrong() noexcept;
  /// Takes a strong reference only when the object is still alive; false otherwise.
  bool tryAddStrong() noexcept;
  /// Deletes the object when the last strong reference goes.
  void releaseStrong() noexcept;
  void addWeak() noexcept;
  void releaseWeak() noexcept;
  [[nodiscard]] std::uint32_t strongCount() const noexcept;

 private:
  InterfaceBase* object;
  std::atomic<std::uint32_t> strong{0};
  std::atomic<std::uint32_t> weak{1};
};

/// Root of everything the framework's pointers can hold: identity, serial number and reference record.
///
/// Objects are shared, not copied. An object on the stack is allowed as long as no StrongPtr takes it.
class FULLWAVEFORM_EXPORT InterfaceBase {
 public:
  InterfaceBase();
  InterfaceBase(InterfaceBase const&) = delete;
  InterfaceBase& operator=(InterfaceBase const&) = delete;

  /// First virtual slot of the framework's objects; does nothing.
  virtual void referenced();
  virtual ~InterfaceBase();

  /// Taken from PointerID, one step per object.
  [[nodiscard]] std::uint64_t identity() const noexcept { return objectIdentity; }
  /// Running number of the object in this process, from 0.
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
