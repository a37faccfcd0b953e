#include <fullwaveform/host/ReferenceBase.h>

#include <fullwaveform/host/PointerID.h>

namespace Holdex {
namespace {

std::atomic<std::uint64_t> serialNumbers{0};

}  // namespace

void ReferenceRecord::addStrong() noexcept {
  strong.fetch_add(1, std::memory_order_relaxed);
}

bool ReferenceRecord::tryAddStrong() noexcept {
  std::uint32_t current = strong.load(std::memory_order_relaxed);
  while (current != 0) {
    if (strong.compare_exchange_weak(current, current + 1, std::memory_order_acquire,
                                     std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

void ReferenceRecord::releaseStrong() noexcept {
  // Releases the writes of this thread to the object, and acquires those of others before it is destroyed.
  if (strong.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    delete object;
  }
}

void ReferenceRecord::addWeak() noexcept {
  weak.fetch_add(1, std::memory_order_relaxed);
}

void ReferenceRecord::releaseWeak() noexcept {
  if (weak.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    delete this;
  }
}

std::uint32_t ReferenceRecord::strongCount() const noexcept {
  return strong.load(std::memory_order_relaxed);
}

InterfaceBase::InterfaceBase()
    : objectIdentity(PointerID::next()),
      serialNumber(serialNumbers.fetch_add(1, std::memory_order_relaxed)),
      referenceRecord(new ReferenceRecord(this)) {}

void InterfaceBase::referenced() {}

InterfaceBase::~InterfaceBase() {
  referenceRecord->releaseWeak();
}

}  // namespace Holdex
