#include "tools/quibvitalscope/live_images.h"

#include <sys/types.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "tools/quibvitalscope/source_lines.h"
#include "tools/tracer/process_facts.h"
#include "tools/tracer/process_images.h"

namespace qbv::cli {
namespace {

std::string folderOf(std::uint32_t process) {
  return "/proc/" + std::to_string(process);
}

bool hasMapped(std::uint32_t process, const std::string& file) {
  std::error_code failed;
  const std::string path = std::filesystem::canonical(file, failed).string();
  std::ifstream mappings(folderOf(process) + "/maps");
  for (std::string line; !failed && std::getline(mappings, line);)
    if (line.ends_with(" " + path)) return true;
  return false;
}

int addImage(Dwfl_Module* module, void**, const char* name, Dwarf_Addr begin, void* argument) {
  reader::Image image;
  Dwarf_Addr end = 0;
  GElf_Addr bias = 0;
  const char* file = nullptr;
  // Other files are mapped too.
  if (dwfl_module_getelf(module, &bias) == nullptr) return DWARF_CB_OK;
  dwfl_module_info(module, nullptr, nullptr, &end, nullptr, nullptr, &file, nullptr);
  image.begin = begin;
  image.end = end - 1;
  image.path = file != nullptr ? file : name;
  image.name = image.path.substr(image.path.rfind('/') + 1);
  image.buildId = SourceLines::buildIdOf(module);
  static_cast<reader::Report*>(argument)->images.push_back(std::move(image));
  return DWARF_CB_OK;
}

}  // namespace

std::optional<reader::Report> imagesOfRunning(std::uint32_t process, const std::string& mappedFile) {
  if (process == 0 || !hasMapped(process, mappedFile)) return std::nullopt;
  const tracer::ProcessImages images = tracer::noImages();
  if (images == nullptr) return std::nullopt;
  reader::Report report;
  report.processId = process;
  if (tracer::addImagesOf(images.get(), static_cast<pid_t>(process)))
    dwfl_getmodules(images.get(), addImage, &report, 0);
  const std::string executable = tracer::linkTarget(folderOf(process) + "/exe");
  std::stable_partition(report.images.begin(), report.images.end(),
                        [&](const reader::Image& image) { return image.path == executable; });
  return report.images.empty() ? std::nullopt : std::optional(std::move(report));
}

}  // namespace qbv::cli
