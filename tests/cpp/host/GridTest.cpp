#include <fullwaveform/host/Grid.h>

#include <vector>

#include <gtest/gtest.h>

namespace Kestra {
namespace {

TEST(Grid, UnknownRepresentationIsNull) {
  Grid grid;
  EXPECT_EQ(grid.getCartesianRepresentation("StandardCartesianChart3D"), nullptr);
  grid.addCartesianRepresentation("Other");
  EXPECT_EQ(grid.getCartesianRepresentation("StandardCartesianChart3D"), nullptr);
  EXPECT_NE(grid.getCartesianRepresentation("Other"), nullptr);
}

TEST(Grid, AddedRepresentationIsFound) {
  Grid grid;
  grid.addCartesianRepresentation("chart").addField("Waveforms");
  grid.addCartesianRepresentation("chart").addField("SBL_Time");
  Representation const* const chart = grid.getCartesianRepresentation("chart");
  ASSERT_NE(chart, nullptr);
  EXPECT_EQ(chart->findFieldID("Waveforms"), 0);
  EXPECT_EQ(chart->findFieldID("SBL_Time"), 1);
}

TEST(Representation, UnknownFieldIsNull) {
  Representation const representation;
  EXPECT_EQ(representation.findFieldID("Waveforms"), -1);
  EXPECT_EQ(representation.findField("Waveforms"), nullptr);
}

TEST(Representation, FieldKeepsItsAttributes) {
  Representation representation;
  representation.addField("Waveforms")
      .attributes()
      .setAttribute("interval", Holdex::makeStrong<Holdex::Chunk<double>>(std::vector<double>{1e-9}));
  Field const* const field = representation.findField("Waveforms");
  ASSERT_NE(field, nullptr);
  EXPECT_TRUE(field->attributes().getAttribute("interval").isValid());
  EXPECT_FALSE(field->attributes().getAttribute("other").isValid());
}

TEST(Representation, FieldAddedTwiceIsOneField) {
  Representation representation;
  representation.addField("a");
  representation.addField("b");
  representation.addField("a");
  EXPECT_EQ(representation.findFieldID("a"), 0);
  EXPECT_EQ(representation.findFieldID("b"), 1);
}

}  // namespace
}  // namespace Kestra
