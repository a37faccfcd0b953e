#include <string>

#include <fullwaveform/scanner/ScannerDevice.h>
#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"
#include "support/TestScanner.h"

namespace FullWaveform {
namespace {

bool contains(std::string const& text, std::string const& part) {
  return text.find(part) != std::string::npos;
}

std::string defaultReport(std::string const& NaN) {
  return "t_ref: 0 [ns]\n"
         "group_velocity: 0 [m/s]\n"
         "sampling_time: 0 [ns] or as bin-length / 2.0: 0[cm]\n"
         "unambiguous_range: 0 [m]\n"
         "wavelength: 0 [nm]\n"
         "serial: \n"
         "type_id: \n"
         "build: \n"
         "BufferSize: 200\n"
         "NoiseLevelForMTACalculation: 8.6 [dB]\n"
         "WindowEchoRange: 1 [m]\n"
         "getMTALengthAsTime: " +
         NaN +
         "[m]\n"
         "bin_shift: 0 [-]\n"
         "AfterPulse: offset: 0 width: 0 [-]\n"
         "SizeSys: 12  [-]\n"
         "UpSampling: 5 [-]\n"
         "No system-wave! (Richardson&Lucy and Hybrid not possible) [-]\n"
         "ampl_unit: 0.009999999776482582\n"
         "refl_delta: 0.1373470495519926\n"
         "no refl_tableC\n";
}

TEST(ScannerReport, OfADefaultScanner) {
  std::string const report = ScannerDevice().speak();
  EXPECT_TRUE(report == defaultReport("nan") || report == defaultReport("-nan")) << report;
}

// 299700000 x 1e-9 / 2 = 0.14985; 599.4 / 299700000 x 299708256 = 599.416512.
TEST(ScannerReport, OfACompleteScanner) {
  ScannerDevice const scanner = Testing::scannerOf({.tRef = 2.5e-7});
  EXPECT_EQ(scanner.speak(),
            "t_ref: 250 [ns]\n"
            "group_velocity: 299700000 [m/s]\n"
            "sampling_time: 1 [ns] or as bin-length / 2.0: 0.14985[cm]\n"
            "unambiguous_range: 599.4 [m]\n"
            "wavelength: 532 [nm]\n"
            "serial: S2227823\n"
            "type_id: VQ-840-GL\n"
            "build: B17\n"
            "BufferSize: 200\n"
            "NoiseLevelForMTACalculation: 8.6 [dB]\n"
            "WindowEchoRange: 1 [m]\n"
            "getMTALengthAsTime: 599.416512[m]\n"
            "bin_shift: 0.65 [-]\n"
            "AfterPulse: offset: 5 width: 2 [-]\n"
            "SizeSys: 12  [-]\n"
            "UpSampling: 5 [-]\n"
            "System-wave available [-]\n"
            "ampl_unit: 0.01\n"
            "refl_delta: 0.25\n"
            "refl_tableC: 0.1...\n");
}

TEST(ScannerReport, WavelengthIsWidenedToDouble) {
  ScannerDevice scanner;
  scanner.wavelength = 1064.1F;
  EXPECT_TRUE(contains(scanner.speak(), "wavelength: 1064.0999755859375 [nm]\n"));
}

TEST(ScannerReport, UnsignedValuesStayUnsigned) {
  ScannerDevice scanner;
  scanner.afterpulse_width = 4294967295U;
  scanner.buffer_size = 2147483648U;
  EXPECT_TRUE(contains(scanner.speak(), "AfterPulse: offset: 0 width: 4294967295 [-]\n"));
  EXPECT_TRUE(contains(scanner.speak(), "BufferSize: 2147483648\n"));
}

TEST(ScannerReport, SystemWaveDependsOnTheCoefficientsOnly) {
  ScannerDevice scanner = Testing::scannerOf();
  scanner.expsum_b.reset();
  EXPECT_TRUE(contains(scanner.speak(), "\nSystem-wave available [-]\n"));
  scanner = Testing::scannerOf();
  scanner.expsum_a.reset();
  EXPECT_TRUE(contains(scanner.speak(), "\nNo system-wave! (Richardson&Lucy and Hybrid not possible) [-]\n"));
}

TEST(ScannerReport, EmptyReflectanceTableIsReportedAsMissing) {
  auto const grid = Testing::scannerGrid();
  grid->attributes().setAttribute("reflectance_calculation_table", Testing::chunkOf<float>({}));
  EXPECT_TRUE(contains(ScannerDevice(*grid, {}).speak(), "no refl_tableC\n"));
}

TEST(ScannerReport, DoesNotWriteToTheConsole) {
  Testing::ConsoleCapture const capture;
  EXPECT_FALSE(ScannerDevice().speak().empty());
  EXPECT_TRUE(capture.messages().empty());
}

TEST(ScannerReport, ScannerThatStoppedEarlyStillReports) {
  Testing::ConsoleCapture const capture;
  auto const grid = Testing::scannerGrid();
  grid->attributes().setAttribute("Wavelength[nm]", {});
  std::string const report = ScannerDevice(*grid, Testing::waveformGrid()).speak();
  EXPECT_TRUE(contains(report, "type_id: VQ-840-GL\n"));
  EXPECT_TRUE(contains(report, "wavelength: 0 [nm]\n"));
  EXPECT_TRUE(contains(report, "bin_shift: 0 [-]\n"));
}

}  // namespace
}  // namespace FullWaveform
