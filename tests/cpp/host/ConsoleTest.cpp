#include <fullwaveform/host/Console.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"

namespace Holdex {
namespace {

using FullWaveform::Testing::ConsoleCapture;
using Messages = std::vector<std::string>;

TEST(Console, OneObjectIsOneMessage) {
  ConsoleCapture const capture;
  {
    Console console;
    console << "dt" << " <= " << "0";
    EXPECT_EQ(capture.messages(), Messages{});
  }
  EXPECT_EQ(capture.messages(), Messages{"dt <= 0"});
}

TEST(Console, MessagesKeepTheirOrder) {
  ConsoleCapture const capture;
  Console() << "first";
  Console() << "second";
  EXPECT_EQ(capture.messages(), (Messages{"first", "second"}));
}

TEST(Console, EmptyTextSendsNoMessage) {
  ConsoleCapture const capture;
  {
    Console const silent;
  }
  EXPECT_EQ(capture.messages(), Messages{});
}

TEST(Console, WithoutSinkAMessageIsWrittenToStandardError) {
  Console::Sink previous = Console::setSink({});
  testing::internal::CaptureStderr();
  Console() << "to the operator";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "to the operator\n");
  Console::setSink(std::move(previous));
}

TEST(Console, MessageOfASinkIsWrittenToStandardError) {
  Console::Sink previous =
      Console::setSink([](std::string const& message) { Console() << "of " << message; });
  testing::internal::CaptureStderr();
  Console() << "one";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "of one\n");
  Console::setSink(std::move(previous));
}

TEST(Console, ASinkMayReplaceItself) {
  Messages received;
  Console::Sink previous = Console::setSink([&received](std::string const& message) {
    received.push_back("first " + message);
    Console::setSink([&received](std::string const& next) { received.push_back("second " + next); });
  });
  Console() << "x";
  Console() << "y";
  EXPECT_EQ(received, (Messages{"first x", "second y"}));
  Console::setSink(std::move(previous));
}

TEST(Console, SetSinkReturnsThePreviousSink) {
  std::string received;
  Console::Sink outer = Console::setSink([&](std::string const& message) { received = "one " + message; });
  Console::Sink const first =
      Console::setSink([&](std::string const& message) { received = "two " + message; });
  Console() << "x";
  EXPECT_EQ(received, "two x");
  ASSERT_TRUE(first);
  first("y");
  EXPECT_EQ(received, "one y");
  Console::setSink(std::move(outer));
}

TEST(Console, ExceptionOfTheSinkIsIgnored) {
  Console::Sink previous =
      Console::setSink([](std::string const&) { throw std::runtime_error("disk full"); });
  EXPECT_NO_THROW(Console() << "lost");
  Console::setSink(std::move(previous));
}

}  // namespace
}  // namespace Holdex
