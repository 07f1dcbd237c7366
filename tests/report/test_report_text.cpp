#include <gmock/gmock.h>

#include <cstring>

#include "report_host.h"
#include "vitalscope/report/QBVReportSources.h"
#include "vitalscope/report/image_list.h"
#include "vitalscope/report/report_facts.h"
#include "vitalscope/report/system_facts.h"

namespace {

using qbv::ScriptedImage;
using qbv::ScriptedImageBuilder;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr std::array<std::uint8_t, 16> kUuid{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
                                             0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE};
constexpr char kUuidText[] = "01234567-89AB-CDEF-1032-547698BADCFE";

class ReportTextTest : public ReportTest {
 protected:
  void addImage(const ScriptedImageBuilder& builder, std::optional<std::string> name, std::uint64_t address) {
    system.images.setLoadAddress(system.images.add(builder.build(), std::move(name)), address);
  }
  std::vector<qbv::ListedImage> listed() { return qbv::listImages(system.images); }
};

TEST_F(ReportTextTest, WholeReport) {
  system.hostInfo.setInfoDictionaryValue("CFBundleIdentifier", "com.example.quib");
  system.hostInfo.setInfoDictionaryValue("CFBundleVersion", "5.12.0.4321");
  system.dates.setZone(3600, "CET");
  system.advance(22);
  addImage(ScriptedImageBuilder().segment("__TEXT", 0, 0x4000).uuid(kUuid), "/Applications/Quib",
           0x100000000);
  addImage(ScriptedImageBuilder().segment("__DATA", 0, 0x4000), "/usr/lib/libc.so.6", 0x7f0000000000);
  qbv::QBVReportSources sources;
  sources.currentAllocMemoryLiveCount = [] { return std::int64_t{1234567890123}; };
  sources.currentOcObjectLiveCount = [] { return std::int64_t{-1}; };
  sources.inOneHourMemoryUsageRecords = [] { return R"({"timeInterval":60})"; };
  qbv::setReportSources(sources);

  const std::string text =
      report().generateReportStr("\nThread 0:\n0   Quib\n\n", QBVReportReasonMainThreadBlock, "not printed",
                                 qbv::Value::Dictionary{{"anrLevel", 2}});
  EXPECT_EQ(text,
            "Process:         quibhost [4242]\n"
            "Identifier:      com.example.quib\n"
            "Version:         5.12.0.4321 ((null))\n"
            "Code Type:       arm64\n"
            "Parent Process:  ? [1]\n"
            "Responsible:      com.example.quib\n"
            "Device Name:       quibhost.local\n"
            "User Type:         Log Version\n"
            "\n"
            "Date/Time:       2024-01-15 13:00:22.0022 +0100\n"
            "OS Version:      macOS 14.2\n"
            "Report Version:      1\n"
            "\n"
            "Time Awake Since Boot:\n"
            "Crashed Thread:     Main Thread\n"
            "\n"
            "Exception Type:   MainThread Block\n"
            "Exception Codes:   501\n"
            "Exception Note:    501\n"
            "\n"
            "Termination Reason:   ANR\n"
            "Terminating Process:   4242\n"
            "\n"
            "Alloc Memory Live Count:    1234567890123\n"
            "OC Object Live Count:    -1\n"
            "\n"
            "\nThread 0:\n0   Quib\n\n"
            "\n"
            "\nBinary Images:\n"
            "       0x100000000 -        0x100003fff Quib (5.12.0.4321 - 5.12.0.4321) "
            "<01234567-89AB-CDEF-1032-547698BADCFE> /Applications/Quib\n"
            "    0x7f0000000000 -     0x7effffffffff libc.so.6 (5.12.0.4321 - 5.12.0.4321) "
            "<(null)> /usr/lib/libc.so.6\n"
            "\n"
            R"(extraData: {"AppMemoryRecords":"{\"timeInterval\":60}","anrLevel":2})"
            "\n");
}

TEST_F(ReportTextTest, WithoutSourcesCountsAreZeroAndExtraDataIsEmpty) {
  const std::string text = report().generateReportStr("stack", QBVReportReasonPower, "", {});
  EXPECT_THAT(text,
              HasSubstr("Alloc Memory Live Count:    0\nOC Object Live Count:    0\n\nstack\n\nBinary"));
  EXPECT_THAT(text, HasSubstr("Exception Type:   Unknown Reason\n"));
  EXPECT_THAT(text, HasSubstr("Termination Reason:   ANR\n"));
  EXPECT_THAT(text, EndsWith("\nBinary Images:\n\nextraData: {}\n"));
}

TEST(ReportFacts, ExceptionTypes) {
  const char* const texts[] = {"Unknown Reason",      "MainThread Block",       "Unknown Reason",
                               "APP Memory Oversize", "Object Memory Oversize", "Unknown Reason",
                               "Unknown Reason",      "Unknown Reason"};
  for (unsigned long reason = 0; reason < std::size(texts); ++reason)
    EXPECT_EQ(qbv::exceptionTypeText(QBVReportReason(reason)), texts[reason]) << reason;
}

TEST(ReportFacts, ExtraDataThatIsNoJsonDropsTheLineWithTheRecords) {
  using Dictionary = qbv::Value::Dictionary;
  EXPECT_EQ(qbv::extraDataLine(Dictionary{{"when", qbv::Value::Date{1.0}}}, "records"), "");
  EXPECT_EQ(qbv::extraDataLine(Dictionary{{"text", "\xff"}}, std::nullopt), "");
  EXPECT_EQ(qbv::extraDataLine({}, "records"), "extraData: {\"AppMemoryRecords\":\"records\"}\n");
  EXPECT_EQ(qbv::extraDataLine(Dictionary{{"AppMemoryRecords", "given"}}, std::nullopt),
            "extraData: {\"AppMemoryRecords\":\"given\"}\n");
}

TEST_F(ReportTextTest, SystemFactsDescribeTheMomentOfCreation) {
  system.dates.setZone(3600, "CET");
  system.hostInfo.setInfoDictionaryValue("CFBundleName", "Quib");
  EXPECT_EQ(report().timezone(), "CET");
  EXPECT_EQ(report().bundleName(), "Quib");
  EXPECT_EQ(report().executableName(), std::nullopt);
  auto facts = system.hostInfo.facts();
  facts.operatingSystemVersion = qbv::OperatingSystemVersion{14, 2, 1};
  facts.hostName.reset();
  system.hostInfo.setFacts(facts);
  EXPECT_EQ(report().systemVersion(), "14.2");
  report().initSystemInfo();
  EXPECT_EQ(report().systemVersion(), "14.2.1");
  EXPECT_THAT(report().headerStringForSystemInfo(QBVReportReasonPower),
              HasSubstr("Device Name:       (null)\n"));
  facts.operatingSystemVersion.reset();
  system.hostInfo.setFacts(facts);
  EXPECT_EQ(qbv::collectSystemFacts().systemVersion, "0.0");
}

TEST(ImageText, Names) {
  EXPECT_EQ(qbv::uuidText(kUuid), kUuidText);
  EXPECT_EQ(qbv::lastPathComponent("/usr/lib/libc.so.6"), "libc.so.6");
  EXPECT_EQ(qbv::lastPathComponent("linux-vdso.so.1"), "linux-vdso.so.1");
  EXPECT_EQ(qbv::lastPathComponent("/usr/lib//"), "lib");
  EXPECT_EQ(qbv::lastPathComponent("/"), "/");
  EXPECT_EQ(qbv::lastPathComponent(""), "");
}

TEST_F(ReportTextTest, FourMagicsAreListedAndNoOther) {
  for (const std::uint32_t magic : {qbv::MH_MAGIC_64, qbv::MH_CIGAM_64, 0xcafebabeU, 0U})
    addImage(ScriptedImageBuilder().magic(magic).segment64("__TEXT", 0, 64).uuid(kUuid), "64", magic);
  for (const std::uint32_t magic : {qbv::MH_MAGIC, qbv::MH_CIGAM})
    addImage(ScriptedImageBuilder(ScriptedImageBuilder::Width::bits32)
                 .magic(magic)
                 .segment32("__TEXT", 0, 32)
                 .uuid(kUuid),
             "32", magic);
  system.images.addEmptyPlace();
  const auto images = listed();
  ASSERT_EQ(images.size(), 4u);
  const std::uint32_t magics[] = {qbv::MH_MAGIC_64, qbv::MH_CIGAM_64, qbv::MH_MAGIC, qbv::MH_CIGAM};
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(images[i].loadAddress, magics[i]);
    EXPECT_EQ(images[i].textSize, i < 2 ? 64u : 32u);
    EXPECT_EQ(images[i].uuid, kUuid);
  }
}

TEST_F(ReportTextTest, ALaterCommandReplacesAnEarlierOne) {
  auto other = kUuid;
  other[0] = 0xff;
  addImage(ScriptedImageBuilder()
               .segment("__TEXT", 0, 0x1000)
               .uuid(other)
               .segment("__TEXT_EXEC", 0, 7)
               .segment("__TEXT", 0, 0x2000)
               .uuid(kUuid),
           std::nullopt, 0x5000);
  const auto images = listed();
  ASSERT_EQ(images.size(), 1u);
  EXPECT_EQ(images[0].textSize, 0x2000u);
  EXPECT_EQ(images[0].uuid, kUuid);
  EXPECT_THAT(report().binaryImagesInfo(),
              HasSubstr("0x5000 -             0x6fff (null) ((null) - (null)) <" + std::string(kUuidText) +
                        "> (null)\n"));
}

// What was found before the damage stands; the scripted image's block ends where its bytes end, so a read
// behind them is caught by the address sanitizer.
TEST_F(ReportTextTest, DamagedCommandsEndTheWalk) {
  const ScriptedImageBuilder sound = ScriptedImageBuilder().segment("__TEXT", 0, 0x1000);
  const std::vector<ScriptedImageBuilder> damaged{
      ScriptedImageBuilder(sound).command(0x99, {}, 0).uuid(kUuid),               // leads nowhere
      ScriptedImageBuilder(sound).command(0x99, {}, 0).commandCount(0xffffffff),  // nowhere, for long
      ScriptedImageBuilder(sound).command(0x99, {}, 4).uuid(kUuid),               // leads into itself
      ScriptedImageBuilder(sound).command(0x99, {}, 0xfffffff8).uuid(kUuid),      // leads out of the image
      ScriptedImageBuilder(sound).command(qbv::LC_UUID, {}, 8).uuid(kUuid),       // too short for what it is
      ScriptedImageBuilder(sound).commandCount(0xffffffff),            // more commands than there are
      ScriptedImageBuilder(sound).uuid(kUuid).truncate(32 + 72 + 20),  // cut inside the identifier
  };
  for (const ScriptedImageBuilder& builder : damaged) addImage(builder, "/damaged", 0x1000);
  addImage(ScriptedImageBuilder(sound).truncate(32 + 71), "/cut segment", 0);
  addImage(ScriptedImageBuilder(sound).truncate(3), "/cut magic", 0);
  const auto images = listed();
  ASSERT_EQ(images.size(), damaged.size() + 1);
  for (std::size_t i = 0; i < damaged.size(); ++i) {
    EXPECT_EQ(images[i].textSize, 0x1000u) << i;
    EXPECT_EQ(images[i].uuid, std::nullopt) << i;
  }
  EXPECT_EQ(images.back().textSize, 0u);
}

}  // namespace
