#include <fullwaveform/host/SpeakPtr.h>

#include <string>
#include <vector>

#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/StrongPtr.h>
#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"

namespace Holdex {
namespace {

using FullWaveform::Testing::ConsoleCapture;

TEST(SpeakPtr, ReportIsOneMessage) {
  ConsoleCapture const capture;
  SpeakPtr::report("an invalid weak pointer");
  EXPECT_EQ(capture.messages(), std::vector<std::string>{"SpeakPtr: an invalid weak pointer"});
}

class SpeakPtrDeathTest : public testing::Test {
 protected:
  void SetUp() override { testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

TEST_F(SpeakPtrDeathTest, AbortReportsAndEndsTheProcess) {
  EXPECT_DEATH(SpeakPtr::abort("access through an empty pointer"), "access through an empty pointer");
}

TEST_F(SpeakPtrDeathTest, AccessThroughAnEmptyStrongPointerAborts) {
  StrongPtr<Chunk<double>> const empty;
  EXPECT_DEATH(static_cast<void>(empty->size()), "empty strong pointer");
  EXPECT_DEATH(static_cast<void>((*empty).size()), "empty strong pointer");
}

TEST_F(SpeakPtrDeathTest, AccessThroughAnEmptiedStrongPointerAborts) {
  StrongPtr<Chunk<double>> pointer = makeStrong<Chunk<double>>(std::size_t{1});
  pointer.reset();
  EXPECT_DEATH(static_cast<void>(pointer->size()), "empty strong pointer");
}

TEST_F(SpeakPtrDeathTest, AccessThroughADynamicPointerOfTheWrongTypeAborts) {
  StrongPtr<ChunkBase> const numbers = makeStrong<Chunk<double>>(std::size_t{1});
  DynamicPtr<Chunk<float>, ChunkBase> const wrong(numbers);
  EXPECT_DEATH(static_cast<void>(wrong->size()), "dynamic pointer");
  EXPECT_DEATH(static_cast<void>((*wrong).size()), "dynamic pointer");
}

}  // namespace
}  // namespace Holdex
