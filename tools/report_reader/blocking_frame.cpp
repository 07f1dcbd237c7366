#include "tools/report_reader/blocking_frame.h"

#include <cxxabi.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace qbv::reader {
namespace {

constexpr std::array<std::string_view, 8> kSystemFolders = {
    "/lib/", "/lib64/", "/lib32/", "/usr/lib/", "/usr/lib64/", "/usr/libexec/", "/usr/lib32/", "/libx32/"};

// Toolkits that applications also bring along; what blocks in them was called by the application.
constexpr std::array<std::string_view, 32> kToolkits = {"ld-linux",
                                                        "ld-musl",
                                                        "linux-vdso",
                                                        "linux-gate",
                                                        "libc.so",
                                                        "libc-",
                                                        "libpthread",
                                                        "libm.so",
                                                        "librt",
                                                        "libdl",
                                                        "libstdc++",
                                                        "libgcc_s",
                                                        "libc++",
                                                        "libglib-",
                                                        "libgobject-",
                                                        "libgio-",
                                                        "libgmodule-",
                                                        "libgtk",
                                                        "libgdk",
                                                        "libQt",
                                                        "libX",
                                                        "libxcb",
                                                        "libwayland-",
                                                        "libEGL",
                                                        "libGL",
                                                        "libcairo",
                                                        "libpango",
                                                        "libwx_",
                                                        "libdbus-",
                                                        "libSDL",
                                                        "libquibvitalscope",
                                                        "libquibplatform"};

template <class List>
bool beginsWithOneOf(std::string_view text, const List& list) {
  return std::any_of(list.begin(), list.end(),
                     [&](std::string_view begin) { return text.starts_with(begin); });
}

bool named(const Frame& frame, std::string_view name) {
  return frame.symbol && *frame.symbol == name;
}

bool isEntryPoint(const std::vector<Frame>& frames, std::size_t at) {
  if (named(frames[at], "main") || named(frames[at], "_start")) return true;
  for (std::size_t caller = at + 1; caller < frames.size() && caller <= at + 2; ++caller)
    if (named(frames[caller], "__libc_start_main")) return true;
  return false;
}

std::optional<std::size_t> chooseFrame(const std::vector<Frame>& frames, const std::vector<Image>& images) {
  std::optional<std::size_t> library;
  std::optional<std::size_t> entry;
  for (std::size_t at = 0; at < frames.size(); ++at) {
    const Owner owner = ownerOf(frames[at].image, images);
    if (owner == Owner::application && !isEntryPoint(frames, at)) return at;
    if (owner == Owner::application && !entry) entry = at;
    if (owner == Owner::library && !library) library = at;
  }
  return library ? library : entry;
}

}  // namespace

Owner ownerOf(const std::string& imageName, const std::vector<Image>& images) {
  if (!images.empty() && images.front().name == imageName) return Owner::application;
  const auto image =
      std::find_if(images.begin(), images.end(), [&](const Image& i) { return i.name == imageName; });
  if (image == images.end() || !image->path.starts_with('/')) return Owner::system;
  const bool foreign =
      beginsWithOneOf(image->path, kSystemFolders) || beginsWithOneOf(image->name, kToolkits);
  return foreign ? Owner::system : Owner::library;
}

std::optional<Blocking> blockingFrame(const std::vector<Frame>& frames, const std::vector<Image>& images) {
  const auto chosen = chooseFrame(frames, images);
  if (!chosen) return std::nullopt;
  Blocking blocking{*chosen, ""};
  const auto end = frames.begin() + static_cast<std::ptrdiff_t>(*chosen);
  const auto inner =
      std::find_if(frames.begin(), end, [](const Frame& frame) { return frame.symbol.has_value(); });
  if (inner != end) blocking.waitingIn = *inner->symbol;
  return blocking;
}

std::string demangled(const std::string& symbol) {
  if (!symbol.starts_with("_Z")) return symbol;
  int status = -1;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), &std::free);
  return status == 0 && name ? name.get() : symbol;
}

std::string withoutArguments(const std::string& name) {
  // The argument list is the last pair of parentheses on the outermost level that something stands before;
  // "(anonymous namespace)" and "operator()" are none.
  const auto close = name.rfind(')');
  if (close == std::string::npos) return name;
  int depth = 0;
  for (std::size_t at = close + 1; at-- > 0;) {
    if (name[at] == ')') ++depth;
    if (name[at] != '(' || --depth > 0) continue;
    const std::string rest = name.substr(0, at);
    const bool isName = at == 0 || rest.ends_with("::") || rest.ends_with("operator");
    return isName ? name : rest;
  }
  return name;
}

std::string describeBlocking(const std::vector<Frame>& frames, const std::vector<Image>& images) {
  const auto blocking = blockingFrame(frames, images);
  if (!blocking) return "";
  const Frame& frame = frames[blocking->frame];
  std::string text = frame.symbol ? withoutArguments(demangled(*frame.symbol)) : frame.image;
  if (!blocking->waitingIn.empty()) text += " … in " + withoutArguments(demangled(blocking->waitingIn));
  return text;
}

}  // namespace qbv::reader
