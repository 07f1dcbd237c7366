#include <sys/stat.h>

#include <cerrno>

#include "report_host.h"
#include "vitalscope/report/QBVMMapFileManager.h"

namespace {

using qbv::FileCall;

class MappedFileTest : public ReportTest {
 protected:
  std::string content() { return system.files.read(path).value_or("(unreadable)"); }
  void expectNothingHeld() {
    EXPECT_EQ(system.files.openDescriptors(), 0u);
    EXPECT_EQ(system.files.mappings(), 0u);
  }
  const std::string path = system.files.home() + "/log.txt";
};

TEST_F(MappedFileTest, AppendsBehindWhatTheFileHolds) {
  system.files.writeAtomically(path, "0123456789");
  EXPECT_TRUE(QBVMMapFileManager::writeContent("abc", path));
  EXPECT_EQ(content(), "0123456789abc");
  EXPECT_TRUE(QBVMMapFileManager::writeContent("", path));
  EXPECT_EQ(content(), "0123456789abc");
  // Across several pages, with an end that is on none's border.
  const std::string large(3 * 4096 + 17, 'z');
  EXPECT_TRUE(QBVMMapFileManager::writeContent(large, path));
  EXPECT_EQ(content(), "0123456789abc" + large);
  expectNothingHeld();
}

TEST_F(MappedFileTest, NewFileIsForTheUserAlone) {
  const mode_t before = ::umask(0);
  EXPECT_TRUE(QBVMMapFileManager::writeContent("text", path));
  ::umask(before);
  struct stat status;
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0600u);
}

TEST_F(MappedFileTest, MissingArgumentsAreRefused) {
  EXPECT_FALSE(QBVMMapFileManager::writeContent(std::nullopt, path));
  EXPECT_FALSE(QBVMMapFileManager::writeContent("text", std::nullopt));
  EXPECT_EQ(QBVMMapFileManager::ProcessFile(nullptr, "text"), -1);
  EXPECT_EQ(QBVMMapFileManager::ProcessFile(path.c_str(), nullptr), -1);
  EXPECT_FALSE(exists(path));
  EXPECT_EQ(QBVMMapFileManager::handle_strlen(nullptr), 0u);
}

TEST_F(MappedFileTest, NothingCanBeMappedOfAnEmptyFileWithoutText) {
  EXPECT_GT(QBVMMapFileManager::ProcessFile(path.c_str(), ""), 1);
  expectNothingHeld();
}

struct FailureCase {
  const char* name;
  FileCall call;
  int error;
  int result;
};
void PrintTo(const FailureCase& failure, std::ostream* out) {
  *out << failure.name;
}
class MappedFileFailure : public MappedFileTest, public testing::WithParamInterface<FailureCase> {};

TEST_P(MappedFileFailure, WritesNothingAndHoldsNothing) {
  system.files.writeAtomically(path, "before");
  system.files.fail(GetParam().call, "log.txt", GetParam().error);
  EXPECT_EQ(QBVMMapFileManager::ProcessFile(path.c_str(), "text"), GetParam().result);
  EXPECT_FALSE(QBVMMapFileManager::writeContent("text", path));
  system.files.clearFailures();
  EXPECT_EQ(content(), "before");
  expectNothingHeld();
}

// A file that does not grow is as bad as a mapping that fails: a store behind its end would be fatal.
INSTANTIATE_TEST_SUITE_P(Calls, MappedFileFailure,
                         testing::Values(FailureCase{"open", FileCall::open, EACCES, 1},
                                         FailureCase{"size", FileCall::size, EIO, 1},
                                         FailureCase{"map", FileCall::map, ENOMEM, ENOMEM},
                                         FailureCase{"setSize", FileCall::setSize, ENOSPC, ENOSPC}),
                         [](const auto& failure) { return std::string(failure.param.name); });

TEST_F(MappedFileTest, ASyncThatFailsDoesNotUndoTheWrite) {
  system.files.fail(FileCall::sync);
  EXPECT_TRUE(QBVMMapFileManager::writeContent("text", path));
  EXPECT_EQ(content(), "text");
  expectNothingHeld();
}

}  // namespace
