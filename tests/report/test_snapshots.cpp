#include <gmock/gmock.h>

#include "report_host.h"
#include "vitalscope/report/QBVReportSources.h"

namespace {

using qbv::ScriptedDates;
using qbv::Value;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class SnapshotTest : public ReportTest {
 protected:
  SnapshotTest() { keepsLogs = true; }
  // Sources as the monitors give them.
  void plugIn(Value memory = Value::Array{"187", "190"}) {
    qbv::QBVReportSources sources;
    sources.launchTime = [] { return std::optional(1.25); };
    sources.realTimeMemoryArray = [memory] { return memory; };
    sources.cpuUseageRecords = [] { return Value(Value::Array{"85%"}); };
    sources.runTimeANRInfo = [] { return Value(Value::Dictionary{{"QBVANR_LEVEL_Light", 2}}); };
    qbv::setReportSources(sources);
  }
  std::string records() const { return root() + "/freeze/freeze"; }
  std::string content(const std::string& path) { return system.files.read(path).value_or("(unreadable)"); }
  std::string today() { return content(records() + "/2024_01_15_inspect_info_record.hang"); }
};

TEST_F(SnapshotTest, TheFirstIsTakenAtOnceAndEveryMinuteReplacesIt) {
  system.hostInfo.setInfoDictionaryValue("CFBundleVersion", "7.2");
  plugIn();
  report();
  EXPECT_FALSE(exists(records())) << "on its own queue";
  system.runUntilIdle();
  EXPECT_EQ(today(),
            R"({"ANR":{"QBVANR_LEVEL_Light":2},"CPU":["85%"],"LaunchTime":"1.250000","Memory":["187","190"],)"
            R"("Version":"7.2"})");
  plugIn(Value::Array{"190", "200", "210"});
  system.advance(59);
  EXPECT_THAT(today(), testing::HasSubstr("187"));
  system.advance(1);
  EXPECT_THAT(today(), testing::HasSubstr(R"("Memory":["190","200","210"],)"));
  EXPECT_THAT(filesBelow(records()), SizeIs(1));
  EXPECT_EQ(std::ranges::count(today(), '{'), 2) << "added to the last one";
  EXPECT_THAT(system.dispatch.queueLabels(), testing::Contains(testing::EndsWith(".apm.syncrecord")));
}

TEST_F(SnapshotTest, ANewDayStartsANewFile) {
  plugIn(Value::Array{"1"});
  system.clock.setAbsoluteTime(ScriptedDates::utc(2024, 1, 15, 23, 59, 30));
  report();
  system.runUntilIdle();
  const std::string yesterday = today();
  plugIn(Value::Array{"2"});
  system.advance(60);
  EXPECT_EQ(today(), yesterday) << "the day before was touched";
  EXPECT_THAT(content(records() + "/2024_01_16_inspect_info_record.hang"),
              testing::HasSubstr(R"("Memory":["2"])"));

  // The user flies west: it is yesterday again.
  system.dates.setZone(-8 * 3600, "PST");
  plugIn(Value::Array{"3"});
  system.advance(60);
  EXPECT_THAT(today(), testing::HasSubstr(R"("Memory":["3"])"));
  EXPECT_THAT(filesBelow(records()), SizeIs(2));
}

TEST_F(SnapshotTest, WhatIsNoJSONEmptiesTheFileUntilTheNextOne) {
  plugIn();
  report();
  system.runUntilIdle();
  plugIn(Value::Array{Value::Date{1}});
  system.advance(60);
  EXPECT_EQ(today(), "");
  EXPECT_THAT(filesBelow(records()), SizeIs(1));
  plugIn();
  system.advance(60);
  EXPECT_THAT(today(), testing::StartsWith("{"));
}

TEST_F(SnapshotTest, WhatIsNotKnownIsLeftOut) {
  report();
  system.runUntilIdle();
  EXPECT_EQ(today(), "{}");
}

TEST_F(SnapshotTest, NothingIsWrittenWhereNoLogsAreKept) {
  keepsLogs = false;
  plugIn();
  report();
  system.advance(120);
  EXPECT_THAT(filesBelow(system.files.home()), IsEmpty());
  EXPECT_FALSE(exists(root()));
}

TEST_F(SnapshotTest, RecordsOfHangsAreReadable) {
  const std::string path = root() + "/inspect_info_record/2024_01_15_anr_records.crash";
  report().syncANRRecordsToDisk({});
  report().syncANRRecordsToDisk("text");
  report().syncANRRecordsToDisk(Value::Array{Value::Date{1}});
  EXPECT_FALSE(exists(path));
  report().syncANRRecordsToDisk(Value::Array{"first"});
  report().syncANRRecordsToDisk(Value::Dictionary{{"light", 2}, {"severe", Value::Array{"a"}}});
  const std::string text = content(path);
  EXPECT_GT(std::ranges::count(text, '\n'), 3) << text;
  EXPECT_THAT(Value::fromJSON(text),
              testing::Optional(Value(Value::Dictionary{{"light", 2}, {"severe", Value::Array{"a"}}})));
}

}  // namespace
