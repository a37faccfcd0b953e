#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include <fullwaveform/host/PointerID.h>
#include <fullwaveform/host/ReferenceBase.h>
#include <fullwaveform/host/SpeakPtr.h>

namespace Holdex {

/// Shared owner of a reference-counted object.
///
/// @tparam T     the type that is accessed
/// @tparam Base  its reference-counted base
///
/// Every pointer has a unique identifier, new whenever it is created or emptied. Access through an empty
/// pointer is a programming error: it is reported and aborts. Different pointers to one object may be used
/// from different threads; one pointer object belongs to one thread at a time.
template <class T, class Base = T>
class StrongPtr {
 public:
  StrongPtr() noexcept = default;
  StrongPtr(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)
  explicit StrongPtr(T* newObject) noexcept : object(newObject), counted(recordOf(newObject)) { take(); }
  StrongPtr(StrongPtr const& other) noexcept : object(other.object), counted(other.counted) { take(); }
  StrongPtr(StrongPtr&& other) noexcept : object(other.object), counted(other.counted) { other.forget(); }

  template <class U, class OtherBase>
    requires std::is_convertible_v<U*, T*>
  StrongPtr(StrongPtr<U, OtherBase> const& other) noexcept  // NOLINT(google-explicit-constructor)
      : StrongPtr(other.get()) {}

  StrongPtr& operator=(StrongPtr other) noexcept {
    std::swap(object, other.object);
    std::swap(counted, other.counted);
    if (object == nullptr) {
      id = PointerID::next();
    }
    return *this;
  }

  ~StrongPtr() { release(); }

  void reset() noexcept {
    release();
    forget();
  }

  [[nodiscard]] T* get() const noexcept { return object; }
  [[nodiscard]] bool isValid() const noexcept { return object != nullptr; }
  explicit operator bool() const noexcept { return isValid(); }
  T& operator*() const { return *checked(); }
  T* operator->() const { return checked(); }
  [[nodiscard]] std::uint64_t identifier() const noexcept { return id; }

  friend bool operator==(StrongPtr const& left, StrongPtr const& right) noexcept {
    return left.object == right.object;
  }

 private:
  static ReferenceRecord* recordOf(T* newObject) noexcept {
    return newObject == nullptr ? nullptr : &newObject->record();
  }

  T* checked() const {
    if (object == nullptr) {
      SpeakPtr::abort("access through an empty strong pointer");
    }
    return object;
  }
  void take() noexcept {
    if (counted != nullptr) {
      counted->addStrong();
    }
  }
  void release() noexcept {
    if (counted != nullptr) {
      counted->releaseStrong();
    }
  }
  void forget() noexcept {
    object = nullptr;
    counted = nullptr;
    id = PointerID::next();
  }

  T* object = nullptr;
  ReferenceRecord* counted = nullptr;
  std::uint64_t id = PointerID::next();
};

/// Creates an object and its first strong pointer.
template <class T, class... Arguments>
StrongPtr<T> makeStrong(Arguments&&... arguments) {
  return StrongPtr<T>(new T(std::forward<Arguments>(arguments)...));
}

/// Refers to an object without keeping it alive.
template <class T, class Base = T>
class WeakPtr {
 public:
  WeakPtr() noexcept = default;
  WeakPtr(StrongPtr<T, Base> const& strong) noexcept  // NOLINT(google-explicit-constructor)
      : object(strong.get()), counted(strong ? &strong->record() : nullptr) {
    take();
  }
  WeakPtr(WeakPtr const& other) noexcept : object(other.object), counted(other.counted) { take(); }
  WeakPtr& operator=(WeakPtr other) noexcept {
    std::swap(object, other.object);
    std::swap(counted, other.counted);
    return *this;
  }
  ~WeakPtr() {
    if (counted != nullptr) {
      counted->releaseWeak();
    }
  }

  /// The object if it still exists; otherwise empty, and the misuse is reported.
  [[nodiscard]] StrongPtr<T, Base> lock() const {
    if (counted == nullptr || !counted->tryAddStrong()) {
      SpeakPtr::report("an invalid weak pointer was used");
      return {};
    }
    StrongPtr<T, Base> strong(object);
    counted->releaseStrong();
    return strong;
  }
  [[nodiscard]] bool isValid() const noexcept { return counted != nullptr && counted->strongCount() != 0; }
  [[nodiscard]] std::uint64_t identifier() const noexcept { return id; }

 private:
  void take() noexcept {
    if (counted != nullptr) {
      counted->addWeak();
    }
  }

  T* object = nullptr;
  ReferenceRecord* counted = nullptr;
  std::uint64_t id = PointerID::next();
};

/// A shared reference to a Base, and a typed pointer that is set if the object is a T.
template <class T, class Base>
class DynamicPtr {
 public:
  DynamicPtr() noexcept = default;
  explicit DynamicPtr(StrongPtr<Base> shared)
      : reference(std::move(shared)), typed(dynamic_cast<T*>(reference.get())) {}
  DynamicPtr(DynamicPtr const&) noexcept = default;
  DynamicPtr(DynamicPtr&& other) noexcept
      : reference(std::move(other.reference)), typed(std::exchange(other.typed, nullptr)) {}
  DynamicPtr& operator=(DynamicPtr other) noexcept {
    std::swap(reference, other.reference);
    std::swap(typed, other.typed);
    return *this;
  }
  ~DynamicPtr() = default;

  /// The shared reference, also if the object is not a T.
  [[nodiscard]] StrongPtr<Base> const& shared() const noexcept { return reference; }
  [[nodiscard]] T* get() const noexcept { return typed; }
  explicit operator bool() const noexcept { return typed != nullptr; }
  T& operator*() const { return *checked(); }
  T* operator->() const { return checked(); }

 private:
  T* checked() const {
    if (typed == nullptr) {
      SpeakPtr::abort("access through a dynamic pointer that is empty or of the wrong type");
    }
    return typed;
  }

  StrongPtr<Base> reference;
  T* typed = nullptr;
};

}  // namespace Holdex
