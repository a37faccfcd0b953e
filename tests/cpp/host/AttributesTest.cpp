#include <fullwaveform/host/Attributes.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Holdex {
namespace {

TEST(Attributes, UnknownNameGivesAnEmptyPointer) {
  Attributes const attributes;
  EXPECT_FALSE(attributes.getAttribute("t_ref").isValid());
}

TEST(Attributes, SetValueIsSharedNotCopied) {
  Attributes attributes;
  auto const chunk = makeStrong<Chunk<double>>(std::vector<double>{4.5});
  attributes.setAttribute("t_ref", chunk);
  EXPECT_EQ(attributes.getAttribute("t_ref").get(), chunk.get());
}

TEST(Attributes, SecondValueReplacesTheFirst) {
  Attributes attributes;
  attributes.setAttribute("name", makeStrong<Chunk<double>>(std::vector<double>{1.0}));
  attributes.setAttribute("name", makeStrong<Chunk<std::string>>(std::vector<std::string>{"two"}));
  DynamicPtr<Chunk<std::string>, ChunkBase> const text(attributes.getAttribute("name"));
  ASSERT_TRUE(text);
  EXPECT_EQ((*text)[0], "two");
}

TEST(Attributes, NamesAreCaseSensitive) {
  Attributes attributes;
  attributes.setAttribute("ampl_unit", makeStrong<Chunk<double>>(std::size_t{1}));
  EXPECT_FALSE(attributes.getAttribute("Ampl_unit").isValid());
}

}  // namespace
}  // namespace Holdex
