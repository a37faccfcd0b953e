#include <fullwaveform/driver/FWFModus.h>

#include <cstdint>
#include <type_traits>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

static_assert(std::is_same_v<std::underlying_type_t<FWFModus>, std::uint32_t>);

std::string nameOf(std::uint32_t value) {
  return getNameOfModus(static_cast<FWFModus>(value));
}

TEST(FWFModus, NamesBeginWithABlank) {
  EXPECT_EQ(nameOf(0), " Fitting gauss curve (linear)");
  EXPECT_EQ(nameOf(1), " Gaussian Decomposition (non-linear)");
  EXPECT_EQ(nameOf(2), " Deconvolution via Richardson & Lucy");
  EXPECT_EQ(nameOf(3), " FWF_Hybrid");
}

TEST(FWFModus, NamesHaveNoTrailingCharacters) {
  EXPECT_EQ(nameOf(0).size(), 29U);
  EXPECT_EQ(nameOf(1).size(), 36U);
  EXPECT_EQ(nameOf(2).size(), 36U);
  EXPECT_EQ(nameOf(3).size(), 11U);
}

TEST(FWFModus, OtherValuesHaveNoName) {
  for (std::uint32_t const value : {4U, 5U, 255U, 4294967295U}) {
    EXPECT_EQ(nameOf(value), "");
  }
}

}  // namespace
}  // namespace FullWaveform
