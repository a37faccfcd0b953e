#include <python/bindings/ResultColumns.h>

#include <cstddef>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/Blocks.h"
#include "support/TemporaryDirectory.h"
#include "support/TestScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;
using namespace Results;

using Text = std::vector<std::string>;

/// Names, types and values of a table: "name type: value value ...".
template <class Record, auto const& columns>
Text textOf(ColumnTable<Record, columns>& table) {
  Text text;
  table.forEach([&]<class Definition>(Definition const& column, auto const& values) {
    std::string line = column.name + (" " + numpyTypeName<ColumnValue<Definition, Record>>()) + ":";
    for (auto const value : values) {
      line += " " + std::to_string(value);
    }
    text.push_back(line);
  });
  return text;
}

// Adding a column takes one definition, here at the end of the list.
constexpr auto extendedColumns = std::tuple_cat(
    echoColumns, std::tuple{ResultColumn{"doubled", [](EchoRecord const& r) { return 2.0 * r.peak->idx; }},
                            ResultColumn{"isWide", [](EchoRecord const& r) { return r.peak->std > 3.0; }}});

TEST(ResultColumns, AddedDefinitionIsAColumnWithItsNameTypeAndValues) {
  Peak const first(80.0, 10.25, 1.0, GAUSS_3POINTS, GOOD, 4.0, static_cast<unsigned char>(7), -2.5F);
  Peak const second(40.0, 30.5, 2.0, RICHARDSON_LUCY, AFTERPULS, 0.5, static_cast<unsigned char>(0), 0.0F);
  ColumnTable<EchoRecord, extendedColumns> table(2);
  table.set(0, {{nullptr, 3, 5}, &first, 90.0F});
  table.set(1, {{nullptr, 4, 6}, &second, 45.0F});
  EXPECT_EQ(textOf(table), (Text{"waveform int64: 3 4",                           //
                                 "row int64: 5 6",                                //
                                 "amplitude float32: 80.000000 40.000000",        //
                                 "amplitudeCounts float32: 90.000000 45.000000",  //
                                 "idx float64: 10.250000 30.500000",              //
                                 "time float64: 1.000000 2.000000",               //
                                 "quality uint8: 0 1",                            //
                                 "type uint8: 2 5",                               //
                                 "std float64: 4.000000 0.500000",                //
                                 "classification uint8: 7 0",                     //
                                 "reflectance float32: -2.500000 0.000000",       //
                                 "doubled float64: 20.500000 61.000000",          //
                                 "isWide bool: 1 0"}));
}

TEST(ResultColumns, TablesFollowTheShotMap) {
  TemporaryDirectory const directory;
  ScannerValues values;
  values.amplUnit = 1.0;
  Driver driver(FWFModus::ThreePoint, scannerOf(values), directory.path(), "scan01.rxp", 0U);
  // Shot 1 comes last; the second waveform of shot 2 is below the threshold of 20 counts.
  ShotMap const shots =
      blockOf({{echoOf(100), 2.0, 0}, {noSignal(), 2.0, 1}, {echoOf(200), 1.0, 1}}).run(driver);
  ResultColumns result(3);
  result.append(shots, driver.lastBlock());
  result.finish(driver.lastBlock());
  EXPECT_EQ(result.rowStates, (std::vector<std::uint8_t>{0, 1, 0}));
  Text const waveforms = textOf(result.waveforms);
  EXPECT_EQ(waveforms.at(0), "row int64: 2 0");
  EXPECT_EQ(waveforms.at(1), "isLowPower bool: 1 0");
  EXPECT_EQ(waveforms.at(6), "maxAmplitude uint16: 200 100");
  EXPECT_EQ(waveforms.back(), "peakCount int64: 1 1");
  EXPECT_EQ(textOf(result.segments), (Text{"waveform int64: 0 1", "start uint32: 8 8", "end uint32: 12 12"}));
  Text const echoes = textOf(result.echoes);
  EXPECT_EQ(echoes.at(0), "waveform int64: 0 1");
  EXPECT_EQ(echoes.at(1), "row int64: 2 0");
  EXPECT_EQ(echoes.at(4), "idx float64: 10.000000 10.000000");
}

}  // namespace
}  // namespace FullWaveform
