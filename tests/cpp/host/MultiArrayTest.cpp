#include <fullwaveform/host/MultiArray.h>

#include <memory>
#include <span>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace Kestra {
namespace {

using Array = MultiArray<1, double>;

std::vector<double> valuesOf(Array const& array) {
  std::vector<double> values;
  for (std::size_t i = 0; i < array.size(); ++i) {
    values.push_back(array[i]);
  }
  return values;
}

std::vector<double> const oneTwoThree{1.0, 2.0, 3.0};

TEST(MultiArray, WithoutElementsHasSizeZero) {
  EXPECT_EQ(Array().size(), 0U);
  EXPECT_EQ(Array(std::vector<double>{}).size(), 0U);
}

TEST(MultiArray, OwnerOutlivesItsSource) {
  auto source = std::make_unique<std::vector<double>>(oneTwoThree);
  Array const array(*source);
  source.reset();
  EXPECT_EQ(valuesOf(array), oneTwoThree);
}

TEST(MultiArray, ViewRefersToMemoryOfTheCaller) {
  std::vector<double> external = oneTwoThree;
  Array const array{std::span<double const>(external)};
  external[1] = 22.0;
  EXPECT_EQ(&array[0], external.data());
  EXPECT_EQ(array[1], 22.0);
}

TEST(MultiArray, CopyOfAnOwnerOwnsItsOwnElements) {
  auto original = std::make_unique<Array>(oneTwoThree);
  Array const copy = *original;
  EXPECT_NE(&copy[0], &(*original)[0]);
  original.reset();
  EXPECT_EQ(valuesOf(copy), oneTwoThree);
}

TEST(MultiArray, CopyOfAViewRefersToTheSameMemory) {
  std::vector<double> const external = oneTwoThree;
  auto original = std::make_unique<Array>(std::span<double const>(external));
  Array const copy = *original;
  original.reset();
  EXPECT_EQ(&copy[0], external.data());
}

TEST(MultiArray, MoveKeepsTheElementsAndEmptiesTheSource) {
  Array source(oneTwoThree);
  double const* const first = &source[0];
  Array const target = std::move(source);
  EXPECT_EQ(&target[0], first);
  EXPECT_EQ(valuesOf(target), oneTwoThree);
  EXPECT_EQ(source.size(), 0U);  // NOLINT(bugprone-use-after-move): its state is part of the promise
}

TEST(MultiArray, AssignmentReplacesOwnerAndView) {
  std::vector<double> const external{8.0};
  Array array(oneTwoThree);
  array = Array(std::span<double const>(external));
  EXPECT_EQ(&array[0], external.data());
  Array const owner(oneTwoThree);
  array = owner;
  EXPECT_EQ(valuesOf(array), oneTwoThree);
  EXPECT_NE(&array[0], &owner[0]);
}

TEST(MultiArray, SelfAssignmentHasNoEffect) {
  Array array(oneTwoThree);
  Array const& itself = array;
  array = itself;
  EXPECT_EQ(valuesOf(array), oneTwoThree);
}

}  // namespace
}  // namespace Kestra
