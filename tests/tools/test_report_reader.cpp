#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/support/commands.h"
#include "tools/report_reader/blocking_frame.h"
#include "tools/report_reader/diagnostic_folder.h"
#include "tools/report_reader/parse.h"

namespace {

using namespace qbv::reader;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

std::string golden() {
  return qbv::test::contentOf(GOLDEN_FOLDER "/hang.hang");
}

TEST(ReportParser, ReadsEveryBlockOfAReport) {
  const auto report = parseReport(golden());
  ASSERT_TRUE(report);
  EXPECT_THAT(report->problems, IsEmpty());
  EXPECT_EQ(report->process, "paint shop");
  EXPECT_EQ(report->processId, 4242u);
  EXPECT_EQ(report->fact("Date/Time"), "2026-11-16 16:44:12.0012 +0100");
  EXPECT_EQ(report->fact("OC Object Live Count"), "") << "(null) is no value";
  EXPECT_EQ(report->extraData, R"({"AppMemoryRecords":["300","310"],"anrLevel":4})");

  ASSERT_THAT(report->threads, SizeIs(4));
  const Thread& main = report->threads[0];
  EXPECT_EQ(report->mainThread(), &main);
  EXPECT_DOUBLE_EQ(main.cpuPercent.value_or(0), 1.25);
  EXPECT_DOUBLE_EQ(main.memoryMegabytes.value_or(0), 310.5);
  ASSERT_THAT(main.frames, SizeIs(10));
  EXPECT_FALSE(main.frames[0].symbol);
  EXPECT_EQ(main.frames[0].offset, 1115461u);
  EXPECT_EQ(main.frames[3].image, "paint shop");
  EXPECT_EQ(main.frames[3].address, 0x55d800001234u);
  EXPECT_EQ(main.frames[3].symbol, "_ZN5paint6Canvas4openERKSs");
  EXPECT_EQ(main.frames[9].image, "") << "an address in no image";
}

TEST(ReportParser, FindsTheHeadingBehindAFailureSentence) {
  const auto report = parseReport(golden());
  EXPECT_THAT(report->failures, ElementsAre("Fail to get information about thread: 4250"));
  EXPECT_EQ(report->threads[1].id, 4251u);
  EXPECT_EQ(report->threads[1].frames[1].image, "a-library-with-a-very-long-name.so.12");
  EXPECT_EQ(report->threads[1].frames[1].symbol, "operator new(unsigned long)");
}

TEST(ReportParser, ReadsImagesWhoseNamesLookLikeTheLayout) {
  const auto report = parseReport(golden());
  ASSERT_THAT(report->images, SizeIs(4));
  const Image& program = report->images[0];
  EXPECT_EQ(program.name, "paint shop");
  EXPECT_EQ(program.path, "/opt/paint (new) <x>/paint shop");
  EXPECT_EQ(program.version, "4.2");
  EXPECT_EQ(program.buildId, "83fb0d99aca547e0672e6ac0578bea07");
  EXPECT_EQ(program.end, 0x55d8000035e4u);
  EXPECT_EQ(report->images[2].buildId, "");
  EXPECT_EQ(report->imageAt(0x7f00001b90fb), &report->images[3]) << "the last address belongs to the image";
  EXPECT_EQ(report->imageAt(0x7f00001b90fc), nullptr);
}

TEST(ReportParser, LivesThroughEveryCutOff) {
  const std::string text = golden();
  for (std::size_t length = 0; length < text.size(); ++length) {
    const auto report = parseReport(text.substr(0, length));
    if (!report) {
      ASSERT_LT(length, 80u) << "not even the second line was there";
    } else if (length < text.find("extraData")) {
      ASSERT_TRUE(report->problems.size() == 1 || text[length - 1] == '\n') << length;
    }
  }
  EXPECT_THAT(parseReport(text.substr(0, 300))->problems, ElementsAre("cut off before the stacks"));
  EXPECT_THAT(parseReport(text.substr(0, 1500))->problems, ElementsAre("cut off before the list of images"));
  EXPECT_THAT(parseReport(text.substr(0, text.size() - 5))->problems, Not(IsEmpty()));
}

TEST(ReportParser, LivesThroughDamageAnywhere) {
  const std::string text = golden();
  for (std::size_t at = 0; at < text.size(); ++at) {
    for (const char byte : {'\0', '\n', '\xff', '9', ' '}) {
      std::string damaged = text;
      damaged[at] = byte;
      const auto report = parseReport(damaged);
      if (report)
        describeBlocking(report->threads.empty() ? std::vector<Frame>() : report->threads[0].frames,
                         report->images);
    }
  }
  std::string swapped = text;
  swapped.replace(swapped.find("0x00007f0000114e53"), 18, "0xnonsense00000000");
  EXPECT_THAT(parseReport(swapped)->problems,
              ElementsAre(HasSubstr("1 lines are not understood, the first: 1   libc")));
}

TEST(ReportParser, RefusesWhatIsNoReport) {
  EXPECT_FALSE(parseReport(""));
  EXPECT_FALSE(parseReport("Process:         x [1]\nPath:            /x\n")) << "a call sample";
  EXPECT_EQ(textKind("Process:         x [1]\nPath:            /x\n"), TextKind::sample);
  EXPECT_FALSE(parseReport("Process: \nIdentifier:"));
  EXPECT_FALSE(parseReport(std::string(100000, '\n')));
}

TEST(ReportParser, SplitsAFileThatWasWrittenTwice) {
  const std::string twice = golden() + golden();
  const auto parts = splitReports(twice);
  ASSERT_THAT(parts, SizeIs(2));
  for (const auto part : parts) EXPECT_THAT(parseReport(part)->problems, IsEmpty());
}

Frame frame(const char* image, const char* symbol) {
  Frame result;
  result.image = image;
  if (*symbol != '\0') result.symbol = symbol;
  return result;
}

Image image(const char* path) {
  Image result;
  result.path = path;
  result.name = result.path.substr(result.path.rfind('/') + 1);
  return result;
}

const std::vector<Image> kImages = {image("/usr/bin/app"),
                                    image("/opt/app/libapp.so"),
                                    image("/opt/app/libQt6Core.so.6"),
                                    image("/usr/lib/libplugin.so"),
                                    image("/lib/x86_64-linux-gnu/libc.so.6"),
                                    image("/home/me/libquibplatform.so.0"),
                                    image("linux-vdso.so.1")};

TEST(BlockingFrame, IsTheExecutablesInnermostFunction) {
  const std::vector<Frame> frames = {frame("libc.so.6", "poll"), frame("libapp.so", "fetch"),
                                     frame("app", "open"), frame("app", "click"), frame("app", "main")};
  EXPECT_EQ(blockingFrame(frames, kImages)->frame, 2u);
  EXPECT_EQ(describeBlocking(frames, kImages), "open … in poll");
}

TEST(BlockingFrame, IsALibrarysWhereTheExecutableOnlyStarts) {
  const std::vector<Frame> frames = {frame("libc.so.6", ""),
                                     frame("libc.so.6", "poll"),
                                     frame("libQt6Core.so.6", "exec"),
                                     frame("libplugin.so", "work"),
                                     frame("libapp.so", "run"),
                                     frame("app", "main"),
                                     frame("libc.so.6", ""),
                                     frame("libc.so.6", "__libc_start_main"),
                                     frame("app", "_start")};
  EXPECT_EQ(describeBlocking(frames, kImages), "run … in poll");
}

TEST(BlockingFrame, IsTheEntryPointWhereNothingElseIsTheApplications) {
  // Stripped: the function that the C library calls has no name.
  const std::vector<Frame> frames = {frame("libc.so.6", "poll"), frame("libQt6Core.so.6", "exec"),
                                     frame("app", ""), frame("libc.so.6", ""),
                                     frame("libc.so.6", "__libc_start_main")};
  EXPECT_EQ(blockingFrame(frames, kImages)->frame, 2u);
  EXPECT_EQ(describeBlocking(frames, kImages), "app … in poll");
}

TEST(BlockingFrame, MayBeRunningItself) {
  const std::vector<Frame> frames = {frame("app", "spin"), frame("app", "main")};
  EXPECT_EQ(blockingFrame(frames, kImages)->waitingIn, "");
  EXPECT_EQ(describeBlocking(frames, kImages), "spin");
}

TEST(BlockingFrame, IsNoneInSystemCode) {
  const std::vector<Frame> frames = {frame("linux-vdso.so.1", "t"), frame("libc.so.6", "poll"),
                                     frame("libquibplatform.so.0", "loop"), frame("", ""),
                                     frame("nowhere.so", "f")};
  EXPECT_FALSE(blockingFrame(frames, kImages));
  EXPECT_FALSE(blockingFrame({}, {}));
  EXPECT_EQ(describeBlocking(frames, kImages), "");
}

TEST(Names, LoseTheirArgumentsButNotTheirScopes) {
  EXPECT_EQ(withoutArguments("(anonymous namespace)::block(int)"), "(anonymous namespace)::block");
  EXPECT_EQ(withoutArguments("paint::Canvas::open(std::function<void (int)> const&) const"),
            "paint::Canvas::open");
  EXPECT_EQ(withoutArguments("Job::operator()(int)"), "Job::operator()");
  EXPECT_EQ(withoutArguments("plain_c"), "plain_c");
  EXPECT_EQ(withoutArguments("(anonymous namespace)::variable"), "(anonymous namespace)::variable");
  EXPECT_EQ(demangled("_ZN5paint6Canvas4openEv"), "paint::Canvas::open()");
  EXPECT_EQ(demangled("_Zbroken"), "_Zbroken");
}

TEST(DiagnosticFolder, KnowsFilesByTheirPlace) {
  const DiagnosticFile hang = classify("4242/freeze/severe/quibapp_stuck_2026-11-16_16_44_12.hang");
  EXPECT_EQ(hang.kind, FileKind::hang);
  EXPECT_EQ(hang.level, "severe");
  EXPECT_EQ(hang.time, "2026-11-16 16:44:12");
  EXPECT_EQ(hang.processId, 4242u);
  EXPECT_EQ(classify("1/freeze/quibapp_stuck_2026-11-16_16_44_12.hang").level, "");
  EXPECT_EQ(classify("1/freeze/freeze/2026_11_16_inspect_info_record.hang").kind, FileKind::record);
  EXPECT_EQ(classify("1/sample_log/quibapp_stuck__sample.hang").kind, FileKind::sample);
  EXPECT_EQ(classify("1/sample_log/quibapp_stuck__sample.hang").time, "") << "an empty report id";
  EXPECT_EQ(classify("1/inspect_info_record/method_timer_profiler.html").kind, FileKind::profile);
  EXPECT_EQ(classify("1/dump/stack_backtrace.mmap").kind, FileKind::stacks);
  EXPECT_EQ(classify("1/freeze/light/notes.txt").kind, FileKind::other);
  EXPECT_EQ(classify("").kind, FileKind::other);
}

}  // namespace
