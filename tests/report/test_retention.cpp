#include <gmock/gmock.h>

#include "report_host.h"
#include "vitalscope/report/file_ages.h"

namespace {

using testing::ElementsAre;

constexpr double kDay = 86400;

class RetentionTest : public ReportTest {
 protected:
  // `count` files, the last one the oldest.
  void makeFiles(const std::string& folder, int count, double youngest = 0) {
    for (int i = 0; i < count; ++i) makeFile(folder + "/" + std::to_string(100 + i), youngest + i);
  }
};

TEST(FileToTrim, TheOldestOfMoreThanTen) {
  std::vector<qbv::DatedFile> files;
  for (int i = 0; i < 10; ++i) files.push_back({std::to_string(i), 50.0 - i});
  EXPECT_EQ(qbv::fileToTrim(files), std::nullopt);
  files.push_back({"equally old", 41.0});
  EXPECT_EQ(qbv::fileToTrim(files), "9");
  files.insert(files.begin(), {"without a date", std::nullopt});
  EXPECT_EQ(qbv::fileToTrim(files), "9");
  for (qbv::DatedFile& file : files) file.created.reset();
  EXPECT_EQ(qbv::fileToTrim(files), std::nullopt);
}

TEST_F(RetentionTest, OnePassRemovesOneFile) {
  const std::string folder = root() + "/leaks";
  makeFiles(folder, 15);
  report().cleanOverLimitLeaksInfoFile();
  EXPECT_EQ(filesBelow(folder).size(), 14u);
  EXPECT_FALSE(exists(folder + "/114"));
  for (int i = 0; i < 20; ++i) report().cleanOverLimitLeaksInfoFile();
  EXPECT_EQ(filesBelow(folder).size(), 10u);
  EXPECT_TRUE(exists(folder + "/109"));
}

TEST_F(RetentionTest, NestedAndHiddenFilesCount) {
  makeFiles(root() + "/freeze/light", 5, 100);
  makeFiles(root() + "/freeze/severe", 4);
  makeFile(root() + "/freeze/severe/.hidden");
  report().removeOverTimeFile(report().freezeRootPath());
  EXPECT_EQ(filesBelow(root() + "/freeze").size(), 10u);
  makeFile(root() + "/freeze/severe/new");
  report().removeOverTimeFile(report().freezeRootPath());
  EXPECT_EQ(filesBelow(root() + "/freeze").size(), 10u);
  EXPECT_FALSE(exists(root() + "/freeze/light/104"));
}

TEST_F(RetentionTest, RefreshTrimsThreeTreesInTheBackgroundAndNoOther) {
  report();
  system.runUntilIdle();
  keepsLogs = true;  // from here on, so that there are no records of the day
  const std::vector<std::string> trimmed{"freeze", "app_memory_oversize", "leaks"};
  const std::vector<std::string> kept{"object_memory_oversize", "power", "dump", "inspect_info_record",
                                      "sample_log"};
  for (const auto* folders : {&trimmed, &kept})
    for (const std::string& folder : *folders) makeFiles(root() + "/" + folder, 12);
  report().refreshFilesQuantity();
  EXPECT_EQ(filesBelow(root() + "/freeze").size(), 12u);
  system.runUntilIdle();
  for (const std::string& folder : trimmed)
    EXPECT_EQ(filesBelow(root() + "/" + folder).size(), 11u) << folder;
  for (const std::string& folder : kept) EXPECT_EQ(filesBelow(root() + "/" + folder).size(), 12u) << folder;
}

TEST_F(RetentionTest, AFileWhoseDateCannotBeReadIsKept) {
  makeFiles(root() + "/leaks", 12);
  system.files.fail(qbv::FileCall::creationDate, "leaks/111");
  report().cleanOverLimitLeaksInfoFile();
  EXPECT_TRUE(exists(root() + "/leaks/111"));
  EXPECT_FALSE(exists(root() + "/leaks/110"));
}

TEST_F(RetentionTest, AFailedRemovalEndsThePass) {
  makeFiles(root() + "/leaks", 12);
  system.files.fail(qbv::FileCall::remove);
  report().cleanOverLimitLeaksInfoFile();
  EXPECT_EQ(filesBelow(root() + "/leaks").size(), 12u);
}

TEST_F(RetentionTest, AgeIsCountedInLocalCalendarDays) {
  constexpr auto utc = [](int year, int month, int day, int hour = 0, int minute = 0) {
    return qbv::ScriptedDates::utc(year, month, day, hour, minute);
  };
  system.dates.setZone(-5 * 3600, "EST");
  // 23:59 yesterday and 00:01 today, in New York.
  EXPECT_EQ(QBVitalscopeReport::getDaysFrom(utc(2024, 1, 15, 4, 59), utc(2024, 1, 15, 5, 1)), 1);
  EXPECT_EQ(QBVitalscopeReport::getDaysFrom(utc(2024, 1, 15, 5, 1), utc(2024, 1, 16, 4, 59)), 0);
  EXPECT_EQ(QBVitalscopeReport::getDaysFrom(utc(2024, 1, 15), utc(2024, 1, 7)), -8);
  // A day of 23 hours is a day.
  system.dates.addClockChange(utc(2024, 3, 10, 7), -4 * 3600, "EDT");
  EXPECT_EQ(QBVitalscopeReport::getDaysFrom(utc(2024, 3, 9, 5, 30), utc(2024, 3, 17, 4, 30)), 8);
}

TEST_F(RetentionTest, CleanUpTakesOldEntriesOfTheHostAlone) {
  const std::string logs = system.files.home() + "/Library/Logs/quibapp";
  makeFile(logs + "/a.quibapp.app.log", 8 * kDay);
  makeFile(logs + "/quibapp.app.young", 7 * kDay);
  makeFile(logs + "/quibapp.app.undated", 30 * kDay);
  system.files.setCreationDate(logs + "/quibapp.app.undated", std::nullopt);
  makeFile(logs + "/other.log", 400 * kDay);
  makeFile(logs + "/quibapp.app.folder/nested", 1);
  system.files.setCreationDate(logs + "/quibapp.app.folder",
                               system.clock.CFAbsoluteTimeGetCurrent() - 9 * kDay);
  makeFile(root() + "/freeze/quibapp.app", 400 * kDay);
  report().cleanLogFile();
  EXPECT_THAT(system.files.contentsOfDirectory(logs),
              ElementsAre("Diagnostic", "other.log", "quibapp.app.undated", "quibapp.app.young"));
  EXPECT_TRUE(exists(root() + "/freeze/quibapp.app"));
}

TEST_F(RetentionTest, NewestFirst) {
  const std::string folder = root() + "/power";
  makeFile(folder + "/old", 50);
  makeFile(folder + "/new", 1);
  makeFile(folder + "/middle", 20);
  const auto sorted = QBVitalscopeReport::getContentsOfDirectoryByTimeOrderAtPath(
      {folder + "/absent", folder + "/old", folder + "/new", folder + "/middle"});
  ASSERT_EQ(sorted.size(), 4u);
  EXPECT_EQ(sorted[0], folder + "/new");
  EXPECT_EQ(sorted[1], folder + "/middle");
  EXPECT_TRUE(QBVitalscopeReport::getContentsOfDirectoryByTimeOrderAtPath({}).empty());
}

TEST_F(RetentionTest, ListingNamesFilesOnly) {
  makeFile(root() + "/power/a/b");
  system.files.createDirectory(root() + "/power/empty");
  EXPECT_THAT(filesBelow(root() + "/power"), ElementsAre(root() + "/power/a/b"));
  EXPECT_THAT(filesBelow(root() + "/power/a/b"), ElementsAre(root() + "/power/a/b"));
  EXPECT_TRUE(filesBelow(root() + "/absent").empty());
}

}  // namespace
