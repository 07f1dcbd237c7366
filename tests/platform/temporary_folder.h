// A folder of its own for one test, gone at the end.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace qbv {

class TemporaryFolder {
 public:
  TemporaryFolder() : path_(testing::TempDir() + "qbv-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) ADD_FAILURE() << "no temporary folder " << path_;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace qbv
