#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <latch>
#include <optional>
#include <thread>

#include "tests/platform/elf_witness.h"
#include "tests/platform/temporary_folder.h"
#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/probes/symbolicate.h"

namespace qbv {
namespace {

Images& images() {
  return linux_backend::images();
}

std::optional<std::uint32_t> placeOf(std::string_view nameEnd) {
  const std::uint32_t count = images()._dyld_image_count();
  for (std::uint32_t i = 0; i < count; ++i) {
    const char* const name = images()._dyld_get_image_name(i);
    if (name != nullptr && std::string_view(name).ends_with(nameEnd)) return i;
  }
  return std::nullopt;
}

qbv_symbol_record recordOf(std::uint64_t programCounter) {
  qbv_symbol_record record{};
  symbolicate(images(), &programCounter, &record, 1, 0);
  return record;
}

std::uint64_t addressOf(const void* function) {
  return reinterpret_cast<std::uint64_t>(function);
}

std::string uuidOf(const void* header) {
  const auto* const start = static_cast<const std::byte*>(header);
  const auto* command = start + sizeof(mach_header_64);
  for (std::uint32_t i = 0; i < static_cast<const mach_header_64*>(header)->ncmds; ++i) {
    const auto& head = *reinterpret_cast<const load_command*>(command);
    if (head.cmd == LC_UUID) {
      std::string text;
      for (const std::uint8_t byte : reinterpret_cast<const uuid_command*>(command)->uuid) {
        constexpr char kDigits[] = "0123456789abcdef";
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
      }
      return text;
    }
    command += head.cmdsize;
  }
  return {};
}

// First, middle and last byte of every function that no other one begins inside of.
void expectEveryFunction(const witness::Functions& functions, std::uint32_t place, std::size_t atLeast) {
  const auto slide = static_cast<std::uint64_t>(images()._dyld_get_image_vmaddr_slide(place));
  std::size_t compared = 0;
  std::uint64_t covered = 0;
  for (auto at = functions.begin(); at != functions.end(); ++at) {
    const auto& [value, function] = *at;
    const auto next = std::next(at);
    const bool label = function.size == 0 && value < covered;
    covered = std::max(covered, value + function.size);
    if (label || value == 0) continue;
    const std::uint64_t room = next == functions.end() ? function.size : next->first - value;
    const std::uint64_t size = std::max<std::uint64_t>(1, std::min(function.size, room));
    for (const std::uint64_t offset : {std::uint64_t{0}, size / 2, size - 1}) {
      const qbv_symbol_record record = recordOf(slide + value + offset);
      ASSERT_NE(record.symbol_name, nullptr) << *function.names.begin() << " + " << offset;
      ASSERT_TRUE(function.names.contains(record.symbol_name))
          << record.symbol_name << " instead of " << *function.names.begin() << " + " << offset;
      ASSERT_EQ(record.symbol_address, slide + value);
    }
    ++compared;
  }
  EXPECT_GE(compared, atLeast);
}

TEST(LinuxImages, FirstImageIsTheExecutableWithAllItsFunctions) {
  const std::string path = std::filesystem::read_symlink("/proc/self/exe");
  ASSERT_GT(images()._dyld_image_count(), 2U);
  EXPECT_EQ(images()._dyld_get_image_name(0), path);
  const qbv_symbol_record own = recordOf(addressOf(reinterpret_cast<const void*>(&recordOf)));
  EXPECT_EQ(own.image_path, path);
  EXPECT_EQ(own.image_load_address, images().loadAddress(0));
  expectEveryFunction(witness::functionsOf(path, "--syms"), 0, 500);
}

// Run by the tests below in a copy of this program, whose path is given.
TEST(LinuxImages, DISABLED_InACopyOfTheProgram) {
  const char* const path = std::getenv("QBV_TEST_COPY");
  ASSERT_NE(path, nullptr);
  const bool gone = std::getenv("QBV_TEST_DELETE") != nullptr;
  if (gone) {
    ASSERT_TRUE(std::filesystem::remove(path));
  }
  ASSERT_GT(images()._dyld_image_count(), 0U);
  EXPECT_STREQ(images()._dyld_get_image_name(0), path);
  const qbv_symbol_record own = recordOf(addressOf(reinterpret_cast<const void*>(&recordOf)));
  ASSERT_NE(own.symbol_name, nullptr);
  EXPECT_NE(std::string(own.symbol_name).find("recordOf"), std::string::npos) << own.symbol_name;
}

class CopyOfTheProgram : public testing::Test {
 protected:
  void run(const std::string& setting, const std::string& loader) {
    const TemporaryFolder folder;
    const std::string copy = std::filesystem::canonical(folder.path()).string() + "/program (deleted)";
    std::filesystem::copy_file("/proc/self/exe", copy);
    const std::string command = "QBV_TEST_COPY='" + copy + "' " + setting + " " + loader + " '" + copy +
                                "' --gtest_also_run_disabled_tests"
                                " --gtest_filter='LinuxImages.DISABLED_InACopyOfTheProgram'";
    EXPECT_EQ(std::system(command.c_str()), 0);
  }
};

TEST_F(CopyOfTheProgram, IsKnownByItsPathAndNames) {
  run("", "");
}

TEST_F(CopyOfTheProgram, IsStillKnownWhenItsFileIsGone) {
  run("QBV_TEST_DELETE=1", "");
}

TEST_F(CopyOfTheProgram, IsKnownWhenStartedByTheLoadersCommand) {
  const std::optional<std::uint32_t> loader = [] {
    const std::optional<std::uint32_t> x86 = placeOf("/ld-linux-x86-64.so.2");
    return x86 ? x86 : placeOf("/ld-linux-aarch64.so.1");
  }();
  ASSERT_TRUE(loader);
#ifdef QBV_SANITIZED
  GTEST_SKIP() << "sanitizers start the program anew by its link";
#endif
  run("", images()._dyld_get_image_name(*loader));
}

// The C library comes without its full table: exported functions have their names, the code between them has
// none, in particular not that of the function before it.
TEST(LinuxImages, StrippedLibraryGivesOffsetsNotWrongNames) {
  const std::optional<std::uint32_t> libc = placeOf("/libc.so.6");
  ASSERT_TRUE(libc);
  const std::string file = images()._dyld_get_image_name(*libc);
  const witness::Functions functions = witness::functionsOf(file, "--dyn-syms");
  expectEveryFunction(functions, *libc, 1000);
  if (!witness::isStripped(file)) GTEST_SKIP() << "this C library is not stripped";
  const auto slide = static_cast<std::uint64_t>(images()._dyld_get_image_vmaddr_slide(*libc));
  std::uint64_t covered = functions.begin()->first;
  std::size_t gaps = 0;
  for (const auto& [value, function] : functions) {
    for (std::uint64_t at = covered + 16; at + 16 < value; at += 509) {
      const qbv_symbol_record record = recordOf(slide + at);
      ASSERT_NE(record.symbol_name, nullptr);
      ASSERT_STREQ(record.symbol_name, "<redacted>") << std::hex << at;
      ASSERT_LE(record.symbol_address, slide + at);
      ++gaps;
    }
    covered = std::max(covered, value + function.size);
  }
  EXPECT_GT(gaps, 100U);
}

TEST(LinuxImages, UuidIsTheStartOfTheBuildId) {
  std::size_t compared = 0;
  for (std::uint32_t i = 0; i < images()._dyld_image_count(); ++i) {
    const std::string name = images()._dyld_get_image_name(i);
    if (!name.starts_with('/')) continue;
    EXPECT_EQ(uuidOf(images()._dyld_get_image_header(i)), witness::buildIdOf(name).substr(0, 32)) << name;
    EXPECT_EQ(uuidOf(images().headerWithSymbols(i)), witness::buildIdOf(name).substr(0, 32)) << name;
    ++compared;
  }
  EXPECT_GE(compared, 3U);
}

TEST(LinuxImages, VdsoIsAnImageWithNames) {
  if (getauxval(AT_SYSINFO_EHDR) == 0) GTEST_SKIP() << "this kernel gives no vDSO";
  const std::optional<std::uint32_t> vdso = placeOf("linux-vdso.so.1");
  ASSERT_TRUE(vdso);
  EXPECT_EQ(images().loadAddress(*vdso), getauxval(AT_SYSINFO_EHDR));
  void* const handle = dlopen("linux-vdso.so.1", RTLD_LAZY | RTLD_NOLOAD);
  ASSERT_NE(handle, nullptr);
#ifdef __aarch64__
  const char* const names[] = {"__kernel_clock_gettime"};
#else
  const char* const names[] = {"__vdso_clock_gettime", "clock_gettime"};
#endif
  void* const function = dlsym(handle, names[0]);
  ASSERT_NE(function, nullptr);
  const qbv_symbol_record record = recordOf(addressOf(function) + 1);
  ASSERT_NE(record.symbol_name, nullptr);
  EXPECT_TRUE(std::ranges::any_of(names, [&](const char* name) {
    return std::strcmp(name, record.symbol_name) == 0;
  })) << record.symbol_name;
  EXPECT_EQ(record.symbol_address, addressOf(function));
}

TEST(LinuxImages, LikelyImageIsTheImage) {
  for (std::uint32_t i = 0; i < images()._dyld_image_count(); ++i) {
    const std::uint64_t load = images().loadAddress(i);
    EXPECT_EQ(images().likelyImage(load), i);
    EXPECT_NE(images().likelyImage(load - 1), i);
  }
  int local = 0;
  EXPECT_EQ(images().likelyImage(addressOf(&local)), std::nullopt);
  EXPECT_EQ(recordOf(addressOf(&local)).image_path, nullptr);
}

struct Module {
  void* handle;
  const void* entry;
  const void* secret;
};

Module load(const std::string& file) {
  Module module{dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL), nullptr, nullptr};
  if (module.handle == nullptr) return module;
  module.entry = dlsym(module.handle, "qbv_module_entry");
  module.secret = reinterpret_cast<void* (*)()>(dlsym(module.handle, "qbv_module_secret_address"))();
  return module;
}

TEST(LinuxImages, ClosedLibraryEmptiesItsPlaceAndComesBackWithItsDescription) {
  const std::uint32_t before = images()._dyld_image_count();
  const Module first = load(QBV_MODULE_1);
  ASSERT_NE(first.handle, nullptr) << dlerror();
  EXPECT_EQ(images()._dyld_image_count(), before + 1);
  const std::uint32_t place = before;
  const void* const header = images()._dyld_get_image_header(place);
  const void* const full = images().headerWithSymbols(place);
  const std::uint64_t address = images().loadAddress(place);
  EXPECT_STREQ(recordOf(addressOf(first.secret)).symbol_name, "qbv_module_secret");
  dlclose(first.handle);
  EXPECT_EQ(images()._dyld_image_count(), before + 1);
  EXPECT_EQ(images()._dyld_get_image_header(place), nullptr);
  EXPECT_EQ(images()._dyld_get_image_name(place), nullptr);
  EXPECT_EQ(recordOf(addressOf(first.entry)).image_path, nullptr);
  EXPECT_EQ(static_cast<const mach_header_64*>(full)->magic, MH_MAGIC_64);  // still readable

  const Module second = load(QBV_MODULE_1);
  EXPECT_EQ(images()._dyld_image_count(), before + 1);
  if (images().loadAddress(place) == address) {
    EXPECT_EQ(images()._dyld_get_image_header(place), header);
    EXPECT_EQ(images().headerWithSymbols(place), full);
  }
  EXPECT_STREQ(recordOf(addressOf(second.entry)).symbol_name, "qbv_module_entry");
  dlclose(second.handle);
}

// The file that lies under a library's name now need not be the one that was loaded.
TEST(LinuxImages, ReplacedFileGivesNoNames) {
  const TemporaryFolder folder;
  const std::string file = folder.path() + "/module.so";
  std::filesystem::copy_file(QBV_MODULE_1, file);
  const Module module = load(file);
  ASSERT_NE(module.handle, nullptr) << dlerror();
  std::filesystem::copy_file(QBV_MODULE_2, file + ".new");
  std::filesystem::rename(file + ".new", file);
  EXPECT_STREQ(recordOf(addressOf(module.entry)).symbol_name, "qbv_module_entry");
  const qbv_symbol_record secret = recordOf(addressOf(module.secret));
  EXPECT_STREQ(secret.symbol_name, "<redacted>");
  EXPECT_EQ(secret.symbol_address, addressOf(module.secret));  // its start is known all the same
  dlclose(module.handle);
}

TEST(LinuxImages, SymbolsAreBuiltOnceForAllWhoAsk) {
  const std::optional<std::uint32_t> library = placeOf("/libstdc++.so.6");
  ASSERT_TRUE(library);
  constexpr std::size_t kThreads = 8;
  const void* answers[kThreads] = {};
  std::latch start(kThreads);
  {
    std::vector<std::jthread> threads;
    for (const void*& answer : answers) {
      threads.emplace_back([&] {
        start.arrive_and_wait();
        answer = images().headerWithSymbols(*library);
      });
    }
  }
  EXPECT_NE(answers[0], images()._dyld_get_image_header(*library));
  for (const void* const answer : answers) EXPECT_EQ(answer, answers[0]);
}

TEST(LinuxImages, LibrariesComeAndGoWhileOthersLookUp) {
  const Module known = load(QBV_MODULE_1);
  ASSERT_NE(known.handle, nullptr) << dlerror();
  const std::uint64_t own = addressOf(reinterpret_cast<const void*>(&recordOf));
  const std::uint64_t library = addressOf(reinterpret_cast<const void*>(dlsym(RTLD_DEFAULT, "lfind")));
  const std::string ownName = recordOf(own).symbol_name;
  // A table that is being read while libraries are closed is dropped and read again at the next look-up.
  ASSERT_STREQ(recordOf(library).symbol_name, "lfind");
  dlclose(known.handle);
  std::atomic<bool> done{false};
  std::atomic<int> rounds{0};
  std::atomic<int> wrong{0};
  std::latch running(3);
  std::vector<std::jthread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      const auto is = [](const qbv_symbol_record& record, const char* name) {
        return record.symbol_name != nullptr && std::strcmp(record.symbol_name, name) == 0;
      };
      running.count_down();
      do {
        const std::uint64_t addresses[] = {own, library + 5, addressOf(known.entry) + 5,
                                           addressOf(known.secret) + 5};
        qbv_symbol_record records[4];
        symbolicate(images(), addresses, records, 4, 0);
        if (!is(records[0], ownName.c_str()) || !is(records[1], "lfind")) ++wrong;
        const bool gone = records[2].image_path == nullptr;
        const bool there = is(records[2], "qbv_module_entry") ||
                           is(records[2], "qbv_module_secret_address") ||
                           is(records[2], "qbv_module_secret") || is(records[2], "<redacted>") ||
                           records[2].symbol_name == nullptr;
        if (!gone && !there) ++wrong;
        ++rounds;
      } while (!done.load());
    });
  }
  running.wait();
  for (int i = 0; i < 300 || rounds.load() < 300; ++i) {
    void* const first = dlopen(QBV_MODULE_1, RTLD_NOW | RTLD_LOCAL);
    void* const second = dlopen(QBV_MODULE_2, RTLD_NOW | RTLD_LOCAL);
    dlclose(i % 2 == 0 ? first : second);
    dlclose(i % 2 == 0 ? second : first);
  }
  done = true;
  threads.clear();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace qbv
