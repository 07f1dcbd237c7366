#include <gmock/gmock.h>

#include <latch>
#include <thread>

#include "report_host.h"
#include "vitalscope/report/QBVitalscopeUploader.h"
#include "vitalscope/report/report_class.h"
#include "vitalscope/report/serial_work.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

constexpr QBVReportReason kHang = QBVReportReasonMainThreadBlock;
constexpr QBVReportReason kCPU = QBVReportReasonCPUOverThreshold;

TEST(SerialWork, WorkThatComesMeanwhileIsDoneNextAndNeverWaitedFor) {
  qbv::SerialWork turns;
  std::vector<std::string> order;
  std::thread other;
  turns.run([&] {
    turns.run([&] { order.push_back("from within"); });
    // Joined inside of the work: a caller that waited for its turn would never end.
    other = std::thread([&] { turns.run([&] { order.push_back("from another thread"); }); });
    other.join();
    order.push_back("first");
  });
  EXPECT_THAT(order, ElementsAre("first", "from within", "from another thread"));
  turns.run([&] { order.clear(); });
  EXPECT_THAT(order, IsEmpty());
}

TEST(SerialWork, PiecesOfManyThreadsNeverOverlapAndNoneIsLost) {
  qbv::SerialWork turns;
  constexpr int kThreads = 8, kPieces = 500;
  int done = 0;  // plain: only the turns guard it
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&] {
      start.arrive_and_wait();
      for (int piece = 0; piece < kPieces; ++piece) turns.run([&] { ++done; });
    });
  for (std::thread& thread : threads) thread.join();
  turns.run([] {});
  EXPECT_EQ(done, kThreads * kPieces);
}

class UploaderTest : public ReportTest {
 protected:
  UploaderTest() { defineUploadHelper(); }
  static QBVitalscopeUploader& uploader() { return *QBVitalscopeUploader::sharedInstance(); }
  void post(const qbv::Value& feedback) {
    system.notifications.defaultCenter().post("OnUploadFeedbackResult", feedback);
  }
  static std::vector<std::string> askedNow() { return std::exchange(asked, {}); }
};

TEST_F(UploaderTest, AFolderIsAskedForAutomaticallyOncePerWindow) {
  keepsLogs = true;
  uploader().uploadFileWithReason(kHang, 2, false);
  uploader().uploadFileWithReason(kHang, 3, false);
  EXPECT_THAT(askedNow(), ElementsAre("automatic /freeze/moderate", "automatic /freeze/heavier"));
  system.clock.advance(600);
  uploader().uploadFileWithReason(kHang, 2, false);
  system.clock.advance(1199);
  uploader().uploadFileWithReason(kHang, 2, false);
  uploader().uploadFileWithReason(kCPU, 0, false);
  uploader().uploadFileWithReason(kCPU, 4, false);
  EXPECT_THAT(std::exchange(asked, {}), testing::Contains("automatic ").Times(1))
      << "one folder at all levels";
  EXPECT_EQ(report().currentUploadReason(), kCPU);
  EXPECT_EQ(report().currentUploadANRLevel(), 4u) << "set also for a request that is not made";
  system.clock.advance(1);
  uploader().uploadFileWithReason(kHang, 2, false);
  EXPECT_THAT(askedNow(), testing::Contains("automatic /freeze/moderate"));
  EXPECT_EQ(uploader().reportRecordDict()["/freeze/moderate"], system.clock.CFAbsoluteTimeGetCurrent());

  uploader().setReportRecordDict({{"/app_memory_oversize", system.clock.CFAbsoluteTimeGetCurrent() - 3599}});
  EXPECT_FALSE(uploader().enableUpload("/app_memory_oversize"));
  system.clock.advance(1);
  EXPECT_TRUE(uploader().enableUpload("/app_memory_oversize"));
  EXPECT_TRUE(uploader().enableUpload("/freeze/moderate"));
}

TEST_F(UploaderTest, OnlyTheWorstHangsGoOutByThemselvesWhereNoLogsAreKept) {
  for (const unsigned level : {0U, 1U, 4U, 6U}) uploader().uploadFileWithReason(kHang, level, false);
  EXPECT_THAT(asked, IsEmpty());
  EXPECT_EQ(report().currentUploadReason(), QBVReportReasonNone);
  uploader().uploadFileWithReason(kHang, 5, false);
  uploader().uploadFileWithReason(kHang, 4, true);
  uploader().uploadFileWithReason(kCPU, 0, false);
  EXPECT_THAT(askedNow(), ElementsAre("automatic /freeze/freeze", "user /freeze/severe", "automatic "));
}

TEST_F(UploaderTest, OtherReasonsAreNeverAskedFor) {
  keepsLogs = true;
  for (const unsigned long reason : {0UL, 3UL, 4UL, 5UL, 6UL, 7UL})
    for (const bool isUserUpload : {false, true})
      uploader().uploadFileWithReason(QBVReportReason(reason), 5, isUserUpload);
  EXPECT_THAT(asked, IsEmpty());
  EXPECT_THAT(uploader().reportRecordDict(), IsEmpty());
}

TEST_F(UploaderTest, TheUsersWishIsNeitherThrottledNorCountsForTheWindow) {
  keepsLogs = true;
  for (int i = 0; i < 2; ++i) uploader().uploadFileWithReason(kHang, 1, true);
  uploader().uploadFileWithReason(kHang, 1, false);
  uploader().uploadFileWithReason(kHang, 1, true);
  EXPECT_THAT(askedNow(), ElementsAre("user /freeze/light", "user /freeze/light", "automatic /freeze/light",
                                      "user /freeze/light"));
}

TEST_F(UploaderTest, FeedbackGoesBackOncePerWaitingRequestOfItsId) {
  for (const char* const id : {"a", "b", "a", ""}) {
    requestId = id;
    uploader().performUploadLogAction(true);
  }
  EXPECT_THAT(uploader().reportIDArray(), ElementsAre("a", "b", "a"));
  post({});
  post(qbv::Value::Dictionary{});
  post(qbv::Value::Dictionary{{"result", 1}});
  post(qbv::Value::Dictionary{{"reqid", 7}});
  post(qbv::Value::Dictionary{{"reqid", "c"}});
  EXPECT_THAT(handedBack, IsEmpty());
  post(qbv::Value::Dictionary{{"reqid", "a"}, {"result", 1}});
  EXPECT_THAT(handedBack, ElementsAre(R"({"reqid":"a","result":1})", R"({"reqid":"a","result":1})"));
  EXPECT_THAT(uploader().reportIDArray(), ElementsAre("b"));
  post(qbv::Value::Dictionary{{"reqid", "b"}, {"when", qbv::Value::Date{1}}});
  EXPECT_EQ(handedBack.back(), "") << "JSON knows no dates";
  EXPECT_THAT(uploader().reportIDArray(), IsEmpty());
}

TEST_F(UploaderTest, TheHostMayDoAnythingWhileItHandlesARequest) {
  keepsLogs = true;
  uploader();
  std::vector<std::string> foldersAfterwards;
  std::thread other;
  whileHandling = [&] {
    post(qbv::Value::Dictionary{{"reqid", requestId}});
    uploader().uploadFileWithReason(kHang, 2, true);
    // The host waits for another thread, which asks for an upload of its own.
    other = std::thread([] { uploader().uploadFileWithReason(kHang, 3, true); });
    other.join();
    foldersAfterwards.push_back(QBVitalscopeReport::currentFirstLevelDirPath());
    requestId = "next";
  };
  uploader().uploadFileWithReason(kHang, 1, true);
  EXPECT_THAT(foldersAfterwards, ElementsAre("/freeze/light")) << "the folder changed under the host's hands";
  EXPECT_THAT(asked, ElementsAre("user /freeze/light", "user /freeze/moderate", "user /freeze/heavier"));
  EXPECT_THAT(handedBack, SizeIs(1)) << "feedback that came before the id was answered";
  EXPECT_THAT(uploader().reportIDArray(), ElementsAre("next", "next"));
}

TEST_F(UploaderTest, TheRecordsOfTheDayAreAskedForEveryMinutePastEveryFilter) {
  uploader();
  EXPECT_THAT(asked, IsEmpty()) << "on its own queue";
  system.runUntilIdle();
  EXPECT_THAT(askedNow(), ElementsAre("user /freeze/freeze"));
  system.advance(59);
  EXPECT_THAT(asked, IsEmpty());
  system.advance(121);
  EXPECT_THAT(askedNow(), SizeIs(3));
  EXPECT_THAT(uploader().reportRecordDict(), IsEmpty());
  EXPECT_THAT(system.dispatch.queueLabels(), testing::Contains(testing::EndsWith(".qbv.lifecycle")));

  const qbv::DispatchTimerRef first = uploader().appMonitorTimer();
  uploader().uploadRuntimePerformanceRecords();
  EXPECT_NE(uploader().appMonitorTimer(), first);
  system.runUntilIdle();
  EXPECT_THAT(askedNow(), SizeIs(1)) << "the new timer's first";
  system.advance(60);
  EXPECT_THAT(askedNow(), SizeIs(2)) << "the earlier timer goes on";
}

// What a host lacks or defines otherwise is as if it were not there.
TEST(UploaderWithoutHelper, RequestsAndFeedbackAreDropped) {
  qbv::ScriptedPlatform system;
  QBVitalscopeUploader& uploader = *QBVitalscopeUploader::sharedInstance();
  const auto request = [&] {
    uploader.uploadFileWithReason(kHang, 5, false);
    uploader.performUploadLogAction(true);
    system.runUntilIdle();
    system.notifications.defaultCenter().post("OnUploadFeedbackResult",
                                              qbv::Value::Dictionary{{"reqid", "left"}});
  };
  uploader.setReportIDArray({"left"});
  request();
  EXPECT_THAT(uploader.reportRecordDict(),
              ElementsAre(Pair("/freeze/freeze", system.clock.CFAbsoluteTimeGetCurrent())))
      << "the window begins although there was nobody to ask";
  EXPECT_THAT(uploader.reportIDArray(), IsEmpty());

  qbv::ClassDefinition helper(system.runtime, "QBCrashReportHelper");
  helper.classMethod(
      "sharedInstance", +[](qbv::id, qbv::SEL) -> qbv::id { return nullptr; });
  request();
  static qbv::id instance;
  instance = helper
                 .method(
                     "uploadPerformanceDumpFile:", +[](qbv::id, qbv::SEL) -> const char* { return "x"; })
                 .instance();
  helper.classMethod(
      "sharedInstance", +[](qbv::id, qbv::SEL) -> qbv::id { return instance; });
  request();
  helper.method(
      "uploadPerformanceDumpFile:", +[](qbv::id, qbv::SEL, bool) -> const char* { return nullptr; });
  request();
  EXPECT_THAT(uploader.reportIDArray(), IsEmpty());
}

TEST_F(UploaderTest, AHostLearnsTheFolderByName) {
  qbv::defineReportClass();
  const qbv::id cls = qbv::Runtime::classObject(system.runtime.NSClassFromString("QBVitalscopeReport"));
  std::string folder;
  whileHandling = [&] {
    const qbv::id instance = qbv::send<qbv::id>(system.runtime, cls, "sharedInstance");
    folder = std::string(qbv::send<const char*>(system.runtime, instance, "localLogFolderRootPath")) +
             qbv::send<const char*>(system.runtime, cls, "currentFirstLevelDirPath");
  };
  uploader().uploadFileWithReason(kHang, 4, true);
  EXPECT_EQ(folder, root() + "/freeze/severe");
}

}  // namespace
