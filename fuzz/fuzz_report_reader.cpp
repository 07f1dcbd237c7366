// The reader of reports must come through any text.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

#include "tools/report_reader/blocking_frame.h"
#include "tools/report_reader/parse.h"

namespace {

using namespace qbv::reader;

void require(bool holds) {
  if (!holds) std::abort();
}

bool liesWithin(std::string_view part, std::string_view text) {
  return part.data() >= text.data() && part.data() + part.size() <= text.data() + text.size();
}

void lookAt(const Report& report) {
  require(report.extraData.empty() || nlohmann::json::parse(report.extraData, nullptr, false).is_object());
  for (const Thread& thread : report.threads) {
    const auto blocking = blockingFrame(thread.frames, report.images);
    require(!blocking || blocking->frame < thread.frames.size());
    static_cast<void>(describeBlocking(thread.frames, report.images));
    for (const Frame& frame : thread.frames) {
      const Image* const image = report.imageAt(frame.address);
      require(image == nullptr || (image->begin <= frame.address && frame.address <= image->end));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  static_cast<void>(processName(text));
  static_cast<void>(textKind(text));
  const char* behind = text.data();
  for (const std::string_view part : splitReports(text)) {
    require(liesWithin(part, text) && part.data() >= behind);
    behind = part.data() + part.size();
    if (const auto report = parseReport(part)) lookAt(*report);
  }
  return 0;
}
