#include <fullwaveform/host/TarnClass.h>

#include <type_traits>

#include <gtest/gtest.h>

namespace Quorvane {
namespace {

TEST(TarnClass, AfterPulseCodeIsAByteThatStartsAtSeven) {
  static_assert(std::is_same_v<decltype(TarnClass::afterpulse), unsigned char>);
  EXPECT_EQ(TarnClass::afterpulse, 7);
}

TEST(TarnClass, HostCanChangeTheCode) {
  unsigned char const previous = TarnClass::afterpulse;
  TarnClass::afterpulse = 200;
  EXPECT_EQ(TarnClass::afterpulse, 200);
  TarnClass::afterpulse = previous;
}

}  // namespace
}  // namespace Quorvane
