#include "vitalscope/report/image_list.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "vitalscope/report/report_facts.h"

namespace qbv {
namespace {

constexpr std::size_t kHeaderSize32 = 28;

// Copies values out of one image's description; nothing for bytes that do not belong to it.
class ImageBytes {
 public:
  ImageBytes(Images& images, std::uint32_t index)
      : images_(images), index_(index), start_(images._dyld_get_image_header(index)) {}

  bool present() const { return start_ != nullptr; }

  template <class T>
  std::optional<T> at(std::uint64_t offset) const {
    const auto* const address =
        reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(start_) + offset);
    if (!images_.readable(index_, address, sizeof(T))) return std::nullopt;
    T value;
    std::memcpy(&value, address, sizeof(T));
    return value;
  }

 private:
  Images& images_;
  std::uint32_t index_;
  const void* start_;
};

std::optional<std::size_t> headerSize(std::uint32_t magic) {
  if (magic == MH_MAGIC || magic == MH_CIGAM) return kHeaderSize32;
  if (magic == MH_MAGIC_64 || magic == MH_CIGAM_64) return sizeof(mach_header_64);
  return std::nullopt;
}

template <class Segment>
bool isText(const Segment& segment) {
  return std::strncmp(segment.segname, "__TEXT", sizeof segment.segname) == 0;
}

// Takes what one command says into the image; false when the command is cut off.
bool takeCommand(const ImageBytes& bytes, std::uint64_t offset, const load_command& command,
                 ListedImage& image) {
  if (command.cmd == LC_UUID) {
    const auto uuid = bytes.at<uuid_command>(offset);
    if (!uuid || command.cmdsize < sizeof *uuid) return false;
    image.uuid.emplace();
    std::copy(std::begin(uuid->uuid), std::end(uuid->uuid), image.uuid->begin());
  } else if (command.cmd == LC_SEGMENT_64) {
    const auto segment = bytes.at<segment_command_64>(offset);
    if (!segment || command.cmdsize < sizeof *segment) return false;
    if (isText(*segment)) image.textSize = segment->vmsize;
  } else if (command.cmd == LC_SEGMENT) {
    const auto segment = bytes.at<segment_command>(offset);
    if (!segment || command.cmdsize < sizeof *segment) return false;
    if (isText(*segment)) image.textSize = segment->vmsize;
  }
  return true;
}

void walkCommands(const ImageBytes& bytes, std::uint64_t offset, ListedImage& image) {
  const auto count = bytes.at<std::uint32_t>(offsetof(mach_header_64, ncmds));
  for (std::uint32_t i = 0; count && i < *count; ++i) {
    const auto command = bytes.at<load_command>(offset);
    if (!command || command->cmdsize < sizeof *command) return;
    if (!takeCommand(bytes, offset, *command, image)) return;
    offset += command->cmdsize;
  }
}

std::optional<ListedImage> listedImage(Images& images, std::uint32_t index) {
  const ImageBytes bytes(images, index);
  if (!bytes.present()) return std::nullopt;
  const auto magic = bytes.at<std::uint32_t>(0);
  const auto firstCommand = magic ? headerSize(*magic) : std::nullopt;
  if (!firstCommand) return std::nullopt;
  ListedImage image;
  image.loadAddress = images.loadAddress(index);
  if (const char* path = images._dyld_get_image_name(index)) image.path = path;
  walkCommands(bytes, *firstCommand, image);
  return image;
}

std::string addressText(std::uint64_t address) {
  char text[32];
  const int length = std::snprintf(text, sizeof text, "%#18" PRIx64, address);
  return std::string(text, static_cast<std::size_t>(length));
}

}  // namespace

std::vector<ListedImage> listImages(Images& images) {
  std::vector<ListedImage> list;
  const std::uint32_t count = images._dyld_image_count();
  list.reserve(count);
  for (std::uint32_t index = 0; index < count; ++index)
    if (auto image = listedImage(images, index)) list.push_back(std::move(*image));
  return list;
}

std::string uuidText(const ImageUUID& uuid) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (std::size_t i = 0; i < uuid.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kDigits[uuid[i] >> 4];
    text += kDigits[uuid[i] & 15];
  }
  return text;
}

std::string lastPathComponent(const std::string& path) {
  const std::size_t last = path.find_last_not_of('/');
  if (last == std::string::npos) return path.substr(0, 1);
  const std::size_t slash = path.rfind('/', last);
  const std::size_t first = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(first, last + 1 - first);
}

std::string binaryImagesText(const std::vector<ListedImage>& images,
                             const std::optional<std::string>& bundleVersion) {
  const std::string version = orNull(bundleVersion);
  std::string text = "\nBinary Images:\n";
  for (const ListedImage& image : images) {
    text +=
        addressText(image.loadAddress) + " - " + addressText(image.loadAddress + image.textSize - 1) + " ";
    text +=
        (image.path ? lastPathComponent(*image.path) : orNull(image.path)) + " (" + version + " - " + version;
    text += ") <" + (image.uuid ? uuidText(*image.uuid) : orNull(std::nullopt)) + "> " + orNull(image.path) +
            "\n";
  }
  return text;
}

}  // namespace qbv
