#include <fullwaveform/host/ReferenceBase.h>

#include <cstdint>
#include <type_traits>

#include <fullwaveform/host/PointerID.h>
#include <fullwaveform/host/StrongPtr.h>
#include <gtest/gtest.h>

namespace Holdex {
namespace {

class Thing : public ReferenceBase<Thing> {};

TEST(PointerID, EveryCallGivesTheNextValue) {
  std::uint64_t const first = PointerID::next();
  EXPECT_NE(first, 0U);
  EXPECT_EQ(PointerID::next(), first + 1);
}

TEST(ReferenceBase, EveryObjectTakesTheNextIdentity) {
  std::uint64_t const before = PointerID::next();
  Thing const thing;
  EXPECT_EQ(thing.identity(), before + 1);
  EXPECT_EQ(PointerID::next(), before + 2);
}

TEST(ReferenceBase, SerialNumbersIncreaseByOne) {
  Thing const first;
  Thing const second;
  EXPECT_EQ(second.serial(), first.serial() + 1);
}

TEST(ReferenceBase, SerialNumbersAreSharedByAllClasses) {
  class Other : public ReferenceBase<Other> {};
  Thing const first;
  Other const second;
  EXPECT_EQ(second.serial(), first.serial() + 1);
}

TEST(ReferenceBase, ObjectsAreNotCopied) {
  EXPECT_FALSE(std::is_copy_constructible_v<Thing>);
  EXPECT_FALSE(std::is_copy_assignable_v<Thing>);
  EXPECT_TRUE(std::is_polymorphic_v<Thing>);
}

TEST(ReferenceBase, ReferencedHasNoEffect) {
  StrongPtr<Thing> const thing = makeStrong<Thing>();
  std::uint64_t const identity = thing->identity();
  thing->referenced();
  EXPECT_EQ(thing->identity(), identity);
  EXPECT_EQ(thing->record().strongCount(), 1U);
}

}  // namespace
}  // namespace Holdex
