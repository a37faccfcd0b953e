#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <fullwaveform/model/WavePoints.h>
#include <gtest/gtest.h>

#include "support/TemporaryDirectory.h"

namespace FullWaveform {
namespace {

using Wave = WavePoints<unsigned short>;
using Testing::contentOf;
using Testing::TemporaryDirectory;

Peak peakOf(double amplitude, double idx, double time, double std) {
  return {amplitude, idx, time, RAW, GOOD, std, 0, 0.0F};
}

bool contains(std::string const& text, std::string const& part) {
  return text.find(part) != std::string::npos;
}

TEST(WavePointsPrint, DefaultObject) {
  EXPECT_EQ(Wave().print(),
            "bin_shift: 0 [-]\n"
            "Length: 0 [-]\n"
            "Noise: 0 [db]\n"
            "MaxAmplitude: 0 [-]\n"
            "MaxAmplitudeDB: 0 [db]\n"
            "IdxOfMaxAmplitude: 0 [-]\n"
            "TimeOfMaxAmplitude: 0 [m]\n"
            "GlobalStart: 0 GlobalEnd: 0 [-]\n"
            "LengthCropped: 0 [-]\n"
            "IsLowPower: no\n"
            "shot_time: 0 [s]\n"
            "sbl_time: 0 [ns]\n"
            "damping: 0 [-]\n"
            "IsOnline: Online\n"
            "Peaks: \n"
            "#######################");
}

TEST(WavePointsPrint, AllFields) {
  Wave wave(1, 12345.5, 1.5e-6);
  wave.binShift = 0.65;
  wave.length = 120;
  wave.noise = 65535;
  wave.maxAmplitude = 3000;
  wave.maxAmplitudeDB = 29.1F;
  wave.idxOfMaxAmplitude = 57;
  wave.timeOfMaxAmplitude = 0.5;
  wave.globalStart = 8;
  wave.globalEnd = 99;
  wave.lengthCropped = 91;
  wave.damping = 0.1F;
  wave.online = false;
  wave.afterPulse = {{12.0, 100019.0}, {0.5, 1e22}};
  wave.startEnd = {{40, 99}, {8, 20}};
  wave.peaks = {peakOf(812.0, 57.25, 0.0, 1.9), peakOf(0.1, 3.0, 1.0, 0.0)};
  EXPECT_EQ(wave.print(),
            "bin_shift: 0.65 [-]\n"
            "Length: 120 [-]\n"
            "Noise: 65535 [db]\n"
            "MaxAmplitude: 3000 [-]\n"
            "MaxAmplitudeDB: 29.1 [db]\n"
            "IdxOfMaxAmplitude: 57 [-]\n"
            "TimeOfMaxAmplitude: 149854128 [m]\n"
            "GlobalStart: 8 GlobalEnd: 99 [-]\n"
            "LengthCropped: 91 [-]\n"
            "IsLowPower: yes\n"
            "shot_time: 12345.5 [s]\n"
            "sbl_time: 1500 [ns]\n"
            "damping: 0.1 [-]\n"
            "IsOnline: FWF\n"
            "AfterPulse: 0 from: 12 to: 100019\n"
            "AfterPulse: 1 from: 0.5 to: 1e+22\n"
            "StartEnd: 0 from: 8 to: 20\n"
            "StartEnd: 1 from: 40 to: 99\n"
            "Peaks: \n"
            "\t\t\ta=812 idx=57.25 time=0[m] std=1.9 type=Raw peak from signal Qual=GOOD Refl=0\n"
            "\t\t\ta=0.1 idx=3 time=149854128[m] std=0 type=Raw peak from signal Qual=GOOD Refl=0\n"
            "#######################");
}

TEST(WavePointsPrint, UnsignedFieldsFrom2To31PrintNegative) {
  Wave wave;
  wave.length = 2147483648U;
  wave.globalEnd = 4294967295U;
  wave.lengthCropped = 4294967294U;
  wave.idxOfMaxAmplitude = 2147483647U;
  wave.startEnd = {{1, 4294967295U}};
  std::string const text = wave.print();
  EXPECT_TRUE(contains(text, "Length: -2147483648 [-]\n"));
  EXPECT_TRUE(contains(text, "GlobalEnd: -1 [-]\n"));
  EXPECT_TRUE(contains(text, "LengthCropped: -2 [-]\n"));
  EXPECT_TRUE(contains(text, "IdxOfMaxAmplitude: 2147483647 [-]\n"));
  EXPECT_TRUE(contains(text, "StartEnd: 0 from: 1 to: -1\n"));
}

TEST(WavePointsPrint, OnlineDependsOnTheFieldNotOnTheEchoes) {
  Wave wave;
  wave.online = false;
  wave.peaks = {peakOf(1.0, 1.0, 0.0, 0.0)};
  wave.peaks.front().type = ONLINE_OWP;
  EXPECT_TRUE(contains(wave.print(), "IsOnline: FWF\n"));
}

TEST(WavePointsExtent, WithoutEchoesIsEmptyForAnySpeed) {
  EXPECT_EQ(Wave().printLengthAtMaxAmplitude(0.0), "empty");
  EXPECT_EQ(Wave().printLengthAtMaxAmplitude(3e8), "empty");
}

TEST(WavePointsExtent, OneEchoHasEqualStartAndEnd) {
  Wave wave;
  wave.peaks = {peakOf(1.0, 1.0, 3.0, 0.0)};
  EXPECT_EQ(wave.printLengthAtMaxAmplitude(10.0), "#1 E:15 S:15 S-E:0 LengthMaxPos: 0 T:Online");
}

// In double precision 2e-6 s x 299708256 m/s / 2 is one unit in the last place above the difference of the
// two distances.
TEST(WavePointsExtent, SubtractsTimesNotDistances) {
  Wave wave;
  wave.peaks = {peakOf(1.0, 1.0, 1e-6, 0.0), peakOf(1.0, 2.0, 9e-6, 0.0), peakOf(1.0, 3.0, 3e-6, 0.0)};
  wave.timeOfMaxAmplitude = 2e-6;
  wave.online = false;
  EXPECT_EQ(wave.printLengthAtMaxAmplitude(299708256.0),
            "#3 E:449.562384 S:149.854128 S-E:299.70825600000006 LengthMaxPos: 299.708256 T:FWF");
}

TEST(WavePointsExtent, DoesNotSortTheList) {
  Wave wave;
  wave.peaks = {peakOf(1.0, 9.0, 4.0, 0.0), peakOf(1.0, 1.0, 1.0, 0.0)};
  EXPECT_EQ(wave.printLengthAtMaxAmplitude(2.0), "#2 E:1 S:4 S-E:-3 LengthMaxPos: 0 T:Online");
}

TEST(WavePointsExport, WorkedExample) {
  TemporaryDirectory const directory;
  std::string const file = directory.path() / "peaks.txt";
  Wave wave;
  wave.peaks = {peakOf(812.0, 57.25, 0.0, 1.9)};
  wave.exportToAscii(file, "A", 0.5);
  EXPECT_EQ(contentOf(file), "A 812 57.25 1.9 0.5\n");
}

TEST(WavePointsExport, AppendsAllEchoesInListOrder) {
  TemporaryDirectory const directory;
  std::string const file = directory.path() / "peaks.txt";
  std::ofstream(file) << "kept\n";
  Wave wave;
  wave.peaks = {peakOf(0.1, 9.5, 0.0, 2.0), peakOf(100.0, 1e-9, 0.0, 0.25)};
  wave.exportToAscii(file, "shot 7", 0.1);
  wave.exportToAscii(file, "shot 7", 0.1);
  std::string const once = "shot 7 0.1 9.5 2 0.1\nshot 7 100 1e-09 0.25 0.1\n";
  EXPECT_EQ(contentOf(file), "kept\n" + once + once);
}

TEST(WavePointsExport, WithoutEchoesOnlyCreatesTheFile) {
  TemporaryDirectory const directory;
  std::string const file = directory.path() / "empty.txt";
  Wave().exportToAscii(file, "A", 0.5);
  EXPECT_TRUE(std::filesystem::exists(file));
  EXPECT_EQ(contentOf(file), "");
  std::ofstream(file) << "kept";
  Wave().exportToAscii(file, "A", 0.5);
  EXPECT_EQ(contentOf(file), "kept");
}

TEST(WavePointsExport, ErrorsOfOpeningAreIgnored) {
  TemporaryDirectory const directory;
  Wave wave;
  wave.peaks = {peakOf(812.0, 57.25, 0.0, 1.9)};
  EXPECT_NO_THROW(wave.exportToAscii(directory.path() / "missing" / "peaks.txt", "A", 0.5));
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

}  // namespace
}  // namespace FullWaveform
