#include <fullwaveform/scanner/ScannerDevice.h>

#include <cmath>
#include <complex>
#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"
#include "support/TestScanner.h"

namespace FullWaveform {
namespace {

using Testing::chunkOf;
using Testing::ConsoleCapture;
using Testing::scannerGrid;
using Testing::scannerOf;
using Testing::ScannerValues;
using Testing::set;
using Testing::waveformGrid;
using GridPtr = Holdex::StrongPtr<Kestra::Grid>;
using Messages = std::vector<std::string>;

std::string missing(std::string const& name) {
  return "ScannerDevice::ScannerDevice: NO " + name;
}

Holdex::Attributes& waveforms(GridPtr const& grid) {
  return grid->addCartesianRepresentation(Testing::chart).addField("Waveforms").attributes();
}

void unset(Holdex::Attributes& attributes, std::string const& name) {
  attributes.setAttribute(name, {});
}

TEST(ScannerDevice, StartsWithDefaultValues) {
  ScannerDevice const scanner;
  EXPECT_EQ(scanner.noise_level_for_mta, 8.6);
  EXPECT_EQ(scanner.window_echo_time, 6.673156177586246e-09);
  EXPECT_EQ(scanner.buffer_size, 200U);
  EXPECT_EQ(scanner.size_sys, 12U);
  EXPECT_EQ(scanner.up_sampling, 5U);
  EXPECT_EQ(scanner.t_ref, 0.0);
  EXPECT_EQ(scanner.group_velocity, 0.0);
  EXPECT_EQ(scanner.sampling_time, 0.0);
  EXPECT_EQ(scanner.unambiguous_range, 0.0);
  EXPECT_EQ(scanner.wavelength, 0.0F);
  EXPECT_EQ(scanner.serial + scanner.type_id + scanner.build, "");
  EXPECT_FALSE(scanner.expsum_a || scanner.expsum_b || scanner.refl_tableC);
  EXPECT_EQ(scanner.refl_delta, 0.1373470495519926);
  EXPECT_EQ(scanner.ampl_unit, 0.009999999776482582);
  EXPECT_NE(scanner.ampl_unit, 0.01);
  EXPECT_FALSE(scanner());
}

TEST(ScannerDevice, UnknownModelIsRadialWithoutShiftOrAfterPulse) {
  ScannerDevice const scanner = scannerOf({.type = "VQ-1560"});
  EXPECT_EQ(scanner.bin_shift, 0.0);
  EXPECT_EQ(scanner.scan_kind, 1U);
  EXPECT_EQ(scanner.afterpulse_offset, 0U);
  EXPECT_EQ(scanner.afterpulse_width, 0U);
  EXPECT_TRUE(scanner.isRadial());
}

TEST(ScannerDevice, FieldsHaveTheirTypesAndOrder) {
  static_assert(std::is_same_v<decltype(ScannerDevice::wavelength), float>);
  static_assert(std::is_same_v<decltype(ScannerDevice::buffer_size), std::uint32_t>);
  static_assert(std::is_same_v<decltype(ScannerDevice::size_sys), std::uint32_t>);
  static_assert(std::is_same_v<decltype(ScannerDevice::up_sampling), std::uint32_t>);
  static_assert(std::is_base_of_v<ExtraAttributes, ScannerDevice>);
  ScannerDevice const s;
  std::vector<void const*> const fields{&s.afterpulse_width,
                                        &s.noise_level_for_mta,
                                        &s.window_echo_time,
                                        &s.buffer_size,
                                        &s.size_sys,
                                        &s.up_sampling,
                                        &s.t_ref,
                                        &s.group_velocity,
                                        &s.sampling_time,
                                        &s.unambiguous_range,
                                        &s.wavelength,
                                        &s.serial,
                                        &s.type_id,
                                        &s.build,
                                        &s.expsum_a,
                                        &s.expsum_b,
                                        &s.refl_delta,
                                        &s.refl_tableC,
                                        &s.ampl_unit,
                                        &s.complete};
  for (std::size_t i = 1; i < fields.size(); ++i) {
    EXPECT_LT(fields[i - 1], fields[i]) << "field " << i;
  }
}

TEST(ScannerDevice, ReadsEveryAttributeOfBothGrids) {
  ConsoleCapture const capture;
  ScannerDevice const scanner = scannerOf({.samplingTime = 5e-10, .tRef = 2.5e-7, .amplUnit = 0.02});
  EXPECT_TRUE(scanner());
  EXPECT_EQ(scanner.sampling_time, 5e-10);
  EXPECT_EQ(scanner.t_ref, 2.5e-7);
  EXPECT_EQ(scanner.group_velocity, 299700000.0);
  EXPECT_EQ(scanner.unambiguous_range, 599.4);
  EXPECT_EQ(scanner.wavelength, 532.0F);
  EXPECT_EQ(scanner.serial, "S2227823");
  EXPECT_EQ(scanner.type_id, "VQ-840-GL");
  EXPECT_EQ(scanner.build, "B17");
  EXPECT_EQ(scanner.refl_delta, 0.25);
  EXPECT_EQ(scanner.ampl_unit, 0.02);
  ASSERT_TRUE(scanner.refl_tableC);
  EXPECT_EQ((*scanner.refl_tableC)[1], 0.2F);
  EXPECT_EQ(scanner.bin_shift, 0.65);
  EXPECT_EQ(scanner.afterpulse_offset, 5U);
  EXPECT_EQ(scanner.afterpulse_width, 2U);
  EXPECT_EQ(capture.messages(), Messages{});
}

TEST(ScannerDevice, FixedConstantsAreNotRead) {
  GridPtr const grid = scannerGrid();
  for (std::string const name : {"noise_level_for_mta", "buffer_size", "size_sys", "up_sampling"}) {
    set(grid->attributes(), name, 3.0);
  }
  ScannerDevice const scanner(*grid, waveformGrid());
  EXPECT_EQ(scanner.noise_level_for_mta, 8.6);
  EXPECT_EQ(scanner.buffer_size + scanner.size_sys + scanner.up_sampling, 217U);
}

TEST(ScannerDevice, ExponentialSumsJoinRealAndImaginaryParts) {
  ScannerDevice const scanner = scannerOf();
  using Values = std::vector<std::complex<double>>;
  ASSERT_TRUE(scanner.expsum_a && scanner.expsum_b);
  EXPECT_EQ(Values(scanner.expsum_a->begin(), scanner.expsum_a->end()), (Values{{1.0, -1.0}, {2.0, 0.5}}));
  EXPECT_EQ(Values(scanner.expsum_b->begin(), scanner.expsum_b->end()), (Values{{-3e8, 5e8}, {-4e8, -5e8}}));
}

TEST(ScannerDevice, ExponentialSumsCountInTheChunkMemory) {
  GridPtr const own = scannerGrid();
  GridPtr const fields = waveformGrid();
  std::size_t const before = Holdex::ChunkBase::memoryTotal();
  {
    ScannerDevice const scanner(*own, fields);
    EXPECT_EQ(Holdex::ChunkBase::memoryTotal(), before + 2 * 2 * 16);
  }
  EXPECT_EQ(Holdex::ChunkBase::memoryTotal(), before);
}

TEST(ScannerDevice, ReflectanceTableIsSharedWithTheGrid) {
  GridPtr const own = scannerGrid();
  ScannerDevice const scanner(*own, {});
  EXPECT_EQ(scanner.refl_tableC.shared().get(),
            own->attributes().getAttribute("reflectance_calculation_table").get());
}

class IncompleteExponentialSum : public testing::TestWithParam<std::string> {};

TEST_P(IncompleteExponentialSum, GivesNoTableButCompletes) {
  ConsoleCapture const capture;
  GridPtr const grid = waveformGrid();
  unset(waveforms(grid), GetParam());
  ScannerDevice const scanner(*scannerGrid(), grid);
  EXPECT_EQ(scanner.expsum_a.isValid(), GetParam()[0] != 'a');
  EXPECT_EQ(scanner.expsum_b.isValid(), GetParam()[0] != 'b');
  EXPECT_TRUE(scanner());
  EXPECT_EQ(capture.messages(), Messages{});
}

INSTANTIATE_TEST_SUITE_P(ScannerDevice, IncompleteExponentialSum,
                         testing::Values("a_real", "a_imag", "b_real", "b_imag"));

TEST(ScannerDevice, ExponentialSumOfUnequalLengthsCountsAsMissing) {
  for (std::vector<double> const& imaginary :
       {std::vector<double>{1.0}, std::vector<double>{1.0, 2.0, 3.0}}) {
    GridPtr const grid = waveformGrid();
    waveforms(grid).setAttribute("a_imag", chunkOf<double>(imaginary));
    ScannerDevice const scanner(*scannerGrid(), grid);
    EXPECT_FALSE(scanner.expsum_a);
    EXPECT_TRUE(scanner.expsum_b);
    EXPECT_TRUE(scanner());
  }
}

TEST(ScannerDevice, ExponentialSumOfAnotherTypeCountsAsMissing) {
  GridPtr const grid = waveformGrid();
  waveforms(grid).setAttribute("b_real", chunkOf<float>({1.0F, 2.0F}));
  EXPECT_FALSE(ScannerDevice(*scannerGrid(), grid).expsum_b);
}

TEST(ScannerDevice, WithoutWaveformGridCompletesWithoutTimingAndSystemWave) {
  ConsoleCapture const capture;
  ScannerDevice const scanner(*scannerGrid(), {});
  EXPECT_TRUE(scanner());
  EXPECT_EQ(scanner.sampling_time, 0.0);
  EXPECT_EQ(scanner.t_ref, 0.0);
  EXPECT_FALSE(scanner.expsum_a || scanner.expsum_b);
  EXPECT_EQ(scanner.group_velocity, 299700000.0);
  EXPECT_EQ(capture.messages(), Messages{});
}

TEST(ScannerDevice, WithoutSampleIntervalKeepsAllDefaultsSilently) {
  ConsoleCapture const capture;
  GridPtr const grid = waveformGrid({.tRef = 1.0});
  unset(waveforms(grid), "WaveformSampleInterval");
  ScannerDevice const scanner(*scannerGrid(), grid);
  EXPECT_FALSE(scanner());
  EXPECT_EQ(scanner.t_ref, 0.0);
  EXPECT_EQ(scanner.group_velocity, 0.0);
  EXPECT_EQ(scanner.ampl_unit, 0.009999999776482582);
  EXPECT_EQ(scanner.bin_shift, 0.0);
  EXPECT_FALSE(scanner.expsum_a || scanner.refl_tableC);
  EXPECT_EQ(capture.messages(), Messages{});
}

TEST(ScannerDevice, WithoutReferenceTimeStopsSilentlyAfterTheInterval) {
  ConsoleCapture const capture;
  GridPtr const grid = waveformGrid();
  unset(grid->addCartesianRepresentation(Testing::chart).addField("SBL_Time").attributes(), "t_ref");
  ScannerDevice const scanner(*scannerGrid(), grid);
  EXPECT_FALSE(scanner());
  EXPECT_EQ(scanner.sampling_time, 1e-9);
  EXPECT_EQ(scanner.group_velocity, 0.0);
  EXPECT_FALSE(scanner.expsum_a);
  EXPECT_EQ(capture.messages(), Messages{});
}

TEST(ScannerDevice, FieldAttributesAreReadFromTheNamedChartOnly) {
  auto const grid = Holdex::makeStrong<Kestra::Grid>();
  set(grid->attributes(), "WaveformSampleInterval", 1e-9);
  Kestra::Representation& other = grid->addCartesianRepresentation("StandardCartesianChart2D");
  set(other.addField("Waveforms").attributes(), "WaveformSampleInterval", 1e-9);
  EXPECT_EQ(ScannerDevice(*scannerGrid(), grid).sampling_time, 0.0);
}

struct Missing {
  std::string name;
  int step;  // position in the order of reading
};

class MissingAttribute : public testing::TestWithParam<Missing> {};

TEST_P(MissingAttribute, IsReportedOnceAndStopsReading) {
  auto const& [name, step] = GetParam();
  ConsoleCapture const capture;
  GridPtr const grid = scannerGrid();
  unset(grid->attributes(), name);
  ScannerDevice const scanner(*grid, waveformGrid());
  EXPECT_EQ(capture.messages(), Messages{missing(name)});
  EXPECT_FALSE(scanner());
  EXPECT_EQ(scanner.sampling_time, 1e-9);
  EXPECT_EQ(scanner.group_velocity != 0.0, step > 1);
  EXPECT_EQ(!scanner.serial.empty(), step > 2);
  EXPECT_EQ(!scanner.build.empty(), step > 3);
  EXPECT_EQ(!scanner.type_id.empty(), step > 4);
  EXPECT_EQ(scanner.wavelength != 0.0F, step > 5);
  EXPECT_EQ(scanner.unambiguous_range != 0.0, step > 6);
  EXPECT_EQ(scanner.refl_delta == 0.25, step > 7);
  EXPECT_EQ(scanner.ampl_unit == 0.01, step > 8);
  EXPECT_FALSE(scanner.refl_tableC);
  EXPECT_EQ(scanner.bin_shift, 0.0);
}

INSTANTIATE_TEST_SUITE_P(ScannerDevice, MissingAttribute,
                         testing::Values(Missing{"Scanner Group Velocity", 1},
                                         Missing{"Scanner Serial Number", 2}, Missing{"Scanner Type", 4},
                                         Missing{"Wavelength[nm]", 5}, Missing{"UnambiguousRange", 6},
                                         Missing{"reflectance_calculation_delta", 7}, Missing{"ampl_unit", 8},
                                         Missing{"reflectance_calculation_table", 9}));

TEST(ScannerDevice, MissingBuildNumberIsReportedButCompletes) {
  ConsoleCapture const capture;
  GridPtr const grid = scannerGrid();
  unset(grid->attributes(), "Scanner Build Number");
  ScannerDevice const scanner(*grid, waveformGrid());
  EXPECT_TRUE(scanner());
  EXPECT_EQ(scanner.build, "");
  EXPECT_EQ(scanner.bin_shift, 0.65);
  EXPECT_EQ(capture.messages(), Messages{missing("Scanner Build Number")});
}

TEST(ScannerDevice, WithoutAnyAttributeOnlyTheFirstIsReported) {
  ConsoleCapture const capture;
  ScannerDevice const scanner(*Holdex::makeStrong<Kestra::Grid>(), {});
  EXPECT_FALSE(scanner());
  EXPECT_EQ(capture.messages(), Messages{missing("Scanner Group Velocity")});
}

TEST(ScannerDevice, MissingBuildNumberAndTypeAreTwoMessages) {
  ConsoleCapture const capture;
  GridPtr const grid = scannerGrid();
  unset(grid->attributes(), "Scanner Build Number");
  unset(grid->attributes(), "Scanner Type");
  ScannerDevice const scanner(*grid, {});
  EXPECT_EQ(capture.messages(), (Messages{missing("Scanner Build Number"), missing("Scanner Type")}));
}

template <class T>
void expectMissingWith(std::string const& name, std::vector<T> values) {
  ConsoleCapture const capture;
  GridPtr const grid = scannerGrid();
  grid->attributes().setAttribute(name, chunkOf<T>(std::move(values)));
  ScannerDevice const scanner(*grid, {});
  EXPECT_FALSE(scanner()) << name;
  EXPECT_EQ(capture.messages(), Messages{missing(name)});
}

TEST(ScannerDevice, ValueOfAnotherTypeCountsAsMissing) {
  expectMissingWith<double>("Wavelength[nm]", {532.0});
  expectMissingWith<float>("Scanner Group Velocity", {3e8F});
  expectMissingWith<double>("Scanner Serial Number", {12.0});
  expectMissingWith<float>("ampl_unit", {0.01F});
  expectMissingWith<double>("reflectance_calculation_table", {0.1});
}

TEST(ScannerDevice, ChunkWithoutElementsCountsAsMissing) {
  expectMissingWith<double>("UnambiguousRange", {});
  expectMissingWith<std::string>("Scanner Type", {});
  expectMissingWith<float>("Wavelength[nm]", {});
}

TEST(ScannerDevice, FirstElementIsUsed) {
  GridPtr const grid = scannerGrid();
  grid->attributes().setAttribute("UnambiguousRange", chunkOf<double>({100.0, 200.0}));
  EXPECT_EQ(ScannerDevice(*grid, {}).unambiguous_range, 100.0);
}

TEST(ScannerDevice, EmptyReflectanceTableCompletes) {
  ConsoleCapture const capture;
  GridPtr const grid = scannerGrid();
  grid->attributes().setAttribute("reflectance_calculation_table", chunkOf<float>({}));
  EXPECT_TRUE(ScannerDevice(*grid, {})());
  EXPECT_EQ(capture.messages(), Messages{});
}

TEST(ScannerDevice, MTALengthIsRangeOverGroupVelocity) {
  ScannerDevice scanner;
  EXPECT_TRUE(std::isnan(scanner.getMTALengthAsTime()));
  scanner.unambiguous_range = 600.0;
  EXPECT_TRUE(std::isinf(scanner.getMTALengthAsTime()));
  scanner.group_velocity = 3e8;
  EXPECT_EQ(scanner.getMTALengthAsTime(), 2e-6);
}

TEST(ScannerDevice, EmptyPointersTakeNewIdentifiers) {
  ScannerDevice const first;
  ScannerDevice const second;
  EXPECT_NE(first.expsum_a.identifier(), first.expsum_b.identifier());
  EXPECT_LT(first.expsum_b.identifier(), second.expsum_a.identifier());
}

}  // namespace
}  // namespace FullWaveform
