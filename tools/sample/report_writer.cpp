#include "tools/sample/report_writer.h"

#include <cinttypes>
#include <cstdio>

namespace sample {

namespace {

template <class... Args>
void append(std::string& text, const char* format, Args... args) {
  const int length = std::snprintf(nullptr, 0, format, args...);
  const std::size_t old = text.size();
  text.resize(old + static_cast<std::size_t>(length) + 1);
  std::snprintf(text.data() + old, static_cast<std::size_t>(length) + 1, format, args...);
  text.pop_back();
}

std::string described(const FunctionName& name) {
  std::string text = name.function;
  if (text.empty()) append(text, "0x%" PRIx64, name.imageOffset);
  return text + "  (in " + (name.image.empty() ? "?" : name.image) + ")";
}

void appendTree(std::string& text, const CallNode& node, std::size_t depth) {
  append(text, "  %s%zu %s\n", std::string(depth * 2, ' ').c_str(), node.count, described(node.name).c_str());
  for (const auto& child : node.children) appendTree(text, *child, depth + 1);
}

void appendHeader(std::string& text, const Sampling& sampling) {
  append(text, "Process:         %s [%u]\n", sampling.process.c_str(), sampling.processId);
  append(text, "Path:            %s\n", sampling.executable.c_str());
  append(text, "Date/Time:       %s\n", sampling.date.c_str());
  append(text, "Sampling:        %zu times in %.2f seconds, every %.0f milliseconds\n", sampling.sweeps,
         sampling.seconds, sampling.stepMilliseconds);
  append(text, "Stopped:         %.2f milliseconds each time (median)\n", sampling.stoppedMilliseconds);
  if (!sampling.note.empty()) append(text, "Note:            %s\n", sampling.note.c_str());
}

void appendTops(std::string& text, const ThreadSamples& thread) {
  constexpr std::size_t kMostEntries = 5;
  std::size_t left = kMostEntries;
  for (const TopEntry& entry : topOfStack(thread.tree)) {
    if (left-- == 0) return;
    append(text, "  %8zu  %s", entry.count, described(entry.name).c_str());
    const bool called = !entry.caller.function.empty() || entry.caller.imageOffset != 0;
    append(text, called ? "  called from %s\n" : "%s\n", called ? described(entry.caller).c_str() : "");
  }
}

}  // namespace

std::string renderSampling(const Sampling& sampling) {
  std::string text;
  appendHeader(text, sampling);
  text += "\nTop of stack:\n";
  for (const ThreadSamples& thread : sampling.threads) {
    append(text, "  Thread %u  %s\n", thread.thread, thread.name.c_str());
    appendTops(text, thread);
  }
  text += "\nCall graph:\n";
  for (const ThreadSamples& thread : sampling.threads) {
    append(text, "%zu Thread %u  %s\n", thread.tree.root().count, thread.thread, thread.name.c_str());
    for (const auto& child : thread.tree.root().children) appendTree(text, *child, 0);
    text += "\n";
  }
  text += "Binary Images:\n";
  for (const ImageFacts& image : sampling.images)
    append(text, "%#18" PRIx64 " - %#18" PRIx64 " <%s> %s\n", image.begin, image.end - 1,
           image.buildId.c_str(), image.path.c_str());
  return text;
}

}  // namespace sample
