#include <fullwaveform/work/WorkMeter.h>

#include <stdexcept>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

TEST(WorkMeter, HasNoLimitAtFirst) {
  WorkMeter meter;
  meter.startWaveform();
  EXPECT_NO_THROW(meter.spend(WorkMeter::unlimited / 2));
}

TEST(WorkMeter, WorkUpToTheLimitIsAllowed) {
  WorkMeter meter;
  meter.limit = 10;
  meter.startWaveform();
  EXPECT_NO_THROW(meter.spend(4));
  EXPECT_NO_THROW(meter.spend(6));
  EXPECT_THROW(meter.spend(1), TooComplex);
}

TEST(WorkMeter, EveryWaveformHasTheWholeLimit) {
  WorkMeter meter;
  meter.limit = 10;
  for (int i = 0; i < 3; ++i) {
    meter.startWaveform();
    EXPECT_NO_THROW(meter.spend(10));
  }
}

TEST(WorkMeter, LimitDoesNotApplyToPassedWork) {
  WorkMeter meter;
  meter.limit = 10;
  meter.startWaveform();
  EXPECT_NO_THROW(meter.pass(100));
  EXPECT_NO_THROW(meter.spend(10));
}

TEST(WorkMeter, CancelledMonitorEndsTheWork) {
  WorkMeter meter;
  meter.monitor = std::make_shared<RunMonitor>();
  EXPECT_NO_THROW(meter.spend(1));
  meter.monitor->cancel();
  EXPECT_TRUE(meter.monitor->isCancelled());
  EXPECT_THROW(meter.spend(1), Cancelled);
  EXPECT_THROW(meter.pass(0), Cancelled);
}

TEST(WorkMeter, FinishedWaveformsReachTheMonitorOnce) {
  WorkMeter meter;
  meter.monitor = std::make_shared<RunMonitor>();
  meter.finishWaveform();
  meter.finishWaveform();
  EXPECT_EQ(meter.monitor->waveformsDone(), 0U);
  meter.attend();
  EXPECT_EQ(meter.monitor->waveformsDone(), 2U);
  meter.attend();
  EXPECT_EQ(meter.monitor->waveformsDone(), 2U);
}

TEST(WorkMeter, SeveralMetersShareAMonitor) {
  WorkMeter first;
  WorkMeter second;
  first.monitor = second.monitor = std::make_shared<RunMonitor>();
  for (WorkMeter* const meter : {&first, &second}) {
    meter->finishWaveform();
    meter->attend();
  }
  EXPECT_EQ(first.monitor->waveformsDone(), 2U);
}

TEST(WorkMeter, MuchWorkPollsAndLittleWorkDoesNot) {
  int polls = 0;
  WorkMeter meter;
  meter.poll = [&polls] { ++polls; };
  meter.pass(1000);
  EXPECT_EQ(polls, 0);
  meter.pass(1'000'000'000);
  EXPECT_EQ(polls, 1);
  meter.pass(1000);
  EXPECT_EQ(polls, 1);
}

TEST(WorkMeter, WhatThePollThrowsEndsTheWork) {
  WorkMeter meter;
  meter.poll = [] { throw std::domain_error("signal"); };
  EXPECT_THROW(meter.pass(1'000'000'000), std::domain_error);
}

TEST(WorkMeter, NoMeterCountsNothing) {
  EXPECT_NO_THROW(spend(nullptr, WorkMeter::unlimited));
}

}  // namespace
}  // namespace FullWaveform
