#include <fullwaveform/host/StrongPtr.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/host/Chunk.h>
#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"

namespace Holdex {
namespace {

using FullWaveform::Testing::ConsoleCapture;

class Counted : public ReferenceBase<Counted> {
 public:
  explicit Counted(int& instances) : instances(instances) { ++instances; }
  ~Counted() override { --instances; }

 private:
  int& instances;
};

class CountedMore : public Counted {
 public:
  using Counted::Counted;
};

TEST(StrongPtr, EmptyPointerIsNotValid) {
  StrongPtr<Counted> const empty;
  StrongPtr<Counted> const null = nullptr;
  EXPECT_FALSE(empty.isValid());
  EXPECT_FALSE(empty);
  EXPECT_EQ(empty.get(), nullptr);
  EXPECT_TRUE(empty == null);
}

TEST(StrongPtr, LastPointerDeletesTheObject) {
  int instances = 0;
  {
    StrongPtr<Counted> const first = makeStrong<Counted>(instances);
    StrongPtr<Counted> second = first;
    EXPECT_EQ(instances, 1);
    EXPECT_EQ(first->record().strongCount(), 2U);
    second.reset();
    EXPECT_EQ(instances, 1);
    EXPECT_EQ(first->record().strongCount(), 1U);
  }
  EXPECT_EQ(instances, 0);
}

TEST(StrongPtr, MoveTransfersTheReference) {
  int instances = 0;
  StrongPtr<Counted> source = makeStrong<Counted>(instances);
  StrongPtr<Counted> const target = std::move(source);
  EXPECT_FALSE(source.isValid());  // NOLINT(bugprone-use-after-move): tests the moved-from state
  EXPECT_EQ(target->record().strongCount(), 1U);
}

TEST(StrongPtr, AssignmentReleasesThePreviousObject) {
  int instancesA = 0;
  int instancesB = 0;
  StrongPtr<Counted> pointer = makeStrong<Counted>(instancesA);
  pointer = makeStrong<Counted>(instancesB);
  EXPECT_EQ(instancesA, 0);
  EXPECT_EQ(instancesB, 1);
  StrongPtr<Counted> const& itself = pointer;
  pointer = itself;
  EXPECT_EQ(instancesB, 1);
  pointer = nullptr;
  EXPECT_EQ(instancesB, 0);
}

TEST(StrongPtr, DerivedPointerConvertsToItsBase) {
  int instances = 0;
  StrongPtr<Counted> base;
  {
    StrongPtr<CountedMore> const derived = makeStrong<CountedMore>(instances);
    base = derived;
  }
  EXPECT_EQ(instances, 1);
  base.reset();
  EXPECT_EQ(instances, 0);
}

TEST(StrongPtr, EveryPointerHasAUniqueIdentifier) {
  int instances = 0;
  StrongPtr<Counted> const empty;
  StrongPtr<Counted> const otherEmpty;
  StrongPtr<Counted> const first = makeStrong<Counted>(instances);
  StrongPtr<Counted> const copy = first;
  EXPECT_LT(empty.identifier(), otherEmpty.identifier());
  EXPECT_LT(otherEmpty.identifier(), first.identifier());
  EXPECT_LT(first.identifier(), copy.identifier());
}

TEST(StrongPtr, NewEmptyPointerTakesTheNextIdentifier) {
  std::uint64_t const before = PointerID::next();
  StrongPtr<Counted> const empty;
  EXPECT_EQ(empty.identifier(), before + 1);
}

TEST(StrongPtr, EmptiedPointerTakesANewIdentifier) {
  int instances = 0;
  StrongPtr<Counted> pointer = makeStrong<Counted>(instances);
  std::uint64_t const before = PointerID::next();
  pointer.reset();
  EXPECT_EQ(pointer.identifier(), before + 1);
}

TEST(StrongPtr, ExceptionOfTheConstructorPropagatesWithoutLeak) {
  class Failing : public ReferenceBase<Failing> {
   public:
    Failing() { throw std::length_error("no"); }
  };
  EXPECT_THROW(makeStrong<Failing>(), std::length_error);
}

TEST(WeakPtr, DoesNotKeepTheObjectAlive) {
  int instances = 0;
  StrongPtr<Counted> strong = makeStrong<Counted>(instances);
  WeakPtr<Counted> const weak = strong;
  EXPECT_TRUE(weak.isValid());
  EXPECT_EQ(strong->record().strongCount(), 1U);
  strong.reset();
  EXPECT_EQ(instances, 0);
  EXPECT_FALSE(weak.isValid());
}

TEST(WeakPtr, LockSharesAnExistingObject) {
  int instances = 0;
  StrongPtr<Counted> strong = makeStrong<Counted>(instances);
  WeakPtr<Counted> const weak = strong;
  StrongPtr<Counted> locked = weak.lock();
  EXPECT_TRUE(locked == strong);
  EXPECT_EQ(strong->record().strongCount(), 2U);
  strong.reset();
  EXPECT_EQ(instances, 1);
  locked.reset();
  EXPECT_EQ(instances, 0);
}

TEST(WeakPtr, LockOfADestroyedObjectIsReportedAndEmpty) {
  ConsoleCapture const capture;
  int instances = 0;
  WeakPtr<Counted> const weak = makeStrong<Counted>(instances);
  EXPECT_FALSE(weak.lock().isValid());
  EXPECT_EQ(capture.messages(), std::vector<std::string>{"SpeakPtr: an invalid weak pointer was used"});
}

TEST(WeakPtr, LockOfAnEmptyPointerIsReportedToo) {
  ConsoleCapture const capture;
  EXPECT_FALSE(WeakPtr<Counted>().lock().isValid());
  EXPECT_EQ(capture.messages().size(), 1U);
}

TEST(WeakPtr, CopiesAndAssignmentsReferToTheSameObject) {
  int instances = 0;
  StrongPtr<Counted> strong = makeStrong<Counted>(instances);
  WeakPtr<Counted> const weak = strong;
  WeakPtr<Counted> const copy = weak;  // NOLINT(performance-unnecessary-copy-initialization)
  WeakPtr<Counted> assigned;
  assigned = copy;
  EXPECT_TRUE(assigned.lock() == strong);
  EXPECT_NE(weak.identifier(), copy.identifier());
  strong.reset();
  EXPECT_FALSE(weak.isValid() || copy.isValid() || assigned.isValid());
}

TEST(StrongPtr, PointerEmptiedByAssignmentHasANewIdentifier) {
  StrongPtr<ChunkBase> pointer = makeStrong<Chunk<double>>(std::size_t{1});
  std::uint64_t const before = pointer.identifier();
  pointer = nullptr;
  EXPECT_FALSE(pointer);
  EXPECT_GT(pointer.identifier(), before);
}

TEST(DynamicPtr, RightTypeGivesAccess) {
  StrongPtr<ChunkBase> const chunk = makeStrong<Chunk<double>>(std::vector<double>{2.5});
  DynamicPtr<Chunk<double>, ChunkBase> const typed(chunk);
  ASSERT_TRUE(typed);
  EXPECT_EQ((*typed)[0], 2.5);
  EXPECT_EQ(typed->size(), 1U);
  EXPECT_EQ(typed.get(), chunk.get());
}

TEST(DynamicPtr, WrongTypeKeepsTheReferenceWithoutAccess) {
  StrongPtr<ChunkBase> const chunk = makeStrong<Chunk<double>>(std::size_t{1});
  DynamicPtr<Chunk<float>, ChunkBase> const typed(chunk);
  EXPECT_FALSE(typed);
  EXPECT_EQ(typed.get(), nullptr);
  EXPECT_TRUE(typed.shared() == chunk);
  EXPECT_EQ(chunk->record().strongCount(), 2U);
}

TEST(DynamicPtr, EmptyReferenceIsEmpty) {
  EXPECT_FALSE((DynamicPtr<Chunk<float>, ChunkBase>()));
  EXPECT_FALSE((DynamicPtr<Chunk<float>, ChunkBase>(StrongPtr<ChunkBase>())));
}

TEST(DynamicPtr, MovedFromPointerIsEmpty) {
  DynamicPtr<Chunk<float>, ChunkBase> first(makeStrong<Chunk<float>>(std::vector<float>{1.5F}));
  DynamicPtr<Chunk<float>, ChunkBase> const second = std::move(first);
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): tests the moved-from state
  EXPECT_FALSE(first.shared());
  EXPECT_EQ((*second)[0], 1.5F);
}

TEST(DynamicPtr, CopiesAndAssignmentsShareTheChunk) {
  DynamicPtr<Chunk<float>, ChunkBase> const first(makeStrong<Chunk<float>>(std::vector<float>{1.5F}));
  DynamicPtr<Chunk<float>, ChunkBase> second;
  second = first;
  EXPECT_EQ(second.get(), first.get());
  EXPECT_EQ(first.shared()->record().strongCount(), 2U);
}

TEST(DynamicPtr, KeepsTheChunkAlive) {
  StrongPtr<ChunkBase> chunk = makeStrong<Chunk<float>>(std::vector<float>{1.5F});
  DynamicPtr<Chunk<float>, ChunkBase> const typed(chunk);
  chunk.reset();
  EXPECT_EQ((*typed)[0], 1.5F);
}

}  // namespace
}  // namespace Holdex
