#include <fullwaveform/scanner/ExtraAttributes.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

static_assert(std::is_standard_layout_v<ExtraAttributes>);
static_assert(std::is_same_v<decltype(ExtraAttributes::bin_shift), double>);
static_assert(std::is_same_v<decltype(ExtraAttributes::scan_kind), std::uint32_t>);
static_assert(std::is_same_v<decltype(ExtraAttributes::afterpulse_offset), std::uint32_t>);
static_assert(std::is_same_v<decltype(ExtraAttributes::afterpulse_width), std::uint32_t>);

void expectValues(ExtraAttributes const& attributes, double binShift, unsigned scanKind, unsigned offset,
                  unsigned width) {
  EXPECT_EQ(attributes.bin_shift, binShift);
  EXPECT_EQ(attributes.scan_kind, scanKind);
  EXPECT_EQ(attributes.afterpulse_offset, offset);
  EXPECT_EQ(attributes.afterpulse_width, width);
}

constexpr ExtraAttributes arbitrary{1.25, 9, 77, 33};

TEST(ExtraAttributes, FieldsKeepTheirOrder) {
  EXPECT_LT(offsetof(ExtraAttributes, bin_shift), offsetof(ExtraAttributes, scan_kind));
  EXPECT_LT(offsetof(ExtraAttributes, scan_kind), offsetof(ExtraAttributes, afterpulse_offset));
  EXPECT_LT(offsetof(ExtraAttributes, afterpulse_offset), offsetof(ExtraAttributes, afterpulse_width));
}

TEST(ExtraAttributes, BothKnownModelsSetAllFourConstants) {
  for (std::string const type : {"VQ-880-G", "VQ-840-GL"}) {
    ExtraAttributes attributes = arbitrary;
    attributes.setExtraAttributes(type);
    expectValues(attributes, 0.65, 1, 5, 2);
  }
}

TEST(ExtraAttributes, OnlyTheExactModelNameIsKnown) {
  for (std::string const type : {"", "VQ-840-G", "VQ-840-GL ", " VQ-840-GL", "VQ-840-GLX", "VQ-880-GH",
                                 "VQ-880-", "vq-880-g", "VQ-880-g", "VQ-880"}) {
    ExtraAttributes attributes = arbitrary;
    attributes.setExtraAttributes(type);
    expectValues(attributes, 1.25, 9, 77, 33);
  }
}

TEST(ExtraAttributes, ModelNameThatContinuesAfterAZeroByteIsUnknown) {
  ExtraAttributes attributes = arbitrary;
  attributes.setExtraAttributes(std::string("VQ-880-G\0x", 10));
  expectValues(attributes, 1.25, 9, 77, 33);
}

TEST(ExtraAttributes, SecondCallWithAKnownModelGivesTheSame) {
  ExtraAttributes attributes = arbitrary;
  attributes.setExtraAttributes("VQ-880-G");
  attributes.setExtraAttributes("VQ-840-GL");
  expectValues(attributes, 0.65, 1, 5, 2);
}

TEST(ExtraAttributes, UnknownModelAfterAKnownOneKeepsTheKnownValues) {
  ExtraAttributes attributes = arbitrary;
  attributes.setExtraAttributes("VQ-880-G");
  attributes.setExtraAttributes("VQ-1560");
  expectValues(attributes, 0.65, 1, 5, 2);
}

TEST(ExtraAttributes, ScanKindOneIsRadialTwoIsLineWise) {
  EXPECT_TRUE((ExtraAttributes{0.0, 1, 0, 0}).isRadial());
  EXPECT_FALSE((ExtraAttributes{0.0, 1, 0, 0}).isLineWise());
  EXPECT_FALSE((ExtraAttributes{0.0, 2, 0, 0}).isRadial());
  EXPECT_TRUE((ExtraAttributes{0.0, 2, 0, 0}).isLineWise());
}

TEST(ExtraAttributes, OtherScanKindsAreNeither) {
  for (unsigned const kind : {0U, 3U, 4294967295U}) {
    EXPECT_FALSE((ExtraAttributes{0.0, kind, 0, 0}).isRadial());
    EXPECT_FALSE((ExtraAttributes{0.0, kind, 0, 0}).isLineWise());
  }
}

}  // namespace
}  // namespace FullWaveform
