// The loaded images as a report lists them: from the bytes of their descriptions to lines of text.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vitalscope/platform/images.h"

namespace qbv {

using ImageUUID = std::array<std::uint8_t, 16>;

struct ListedImage {
  std::uint64_t loadAddress = 0;
  std::uint64_t textSize = 0;  // bytes; 0 without a text segment
  std::optional<ImageUUID> uuid;
  std::optional<std::string> path;
};

// Every image with one of the four published magics, in list order. Reads only bytes the platform calls
// readable: a command that is truncated or does not lead forward ends the walk of its image, which stays in
// the list with what was found until then. Any thread.
std::vector<ListedImage> listImages(Images& images);

// 8-4-4-4-12 digits, upper case.
std::string uuidText(const ImageUUID& uuid);

// What follows the last "/" (trailing ones aside); "/" for a path of nothing else.
std::string lastPathComponent(const std::string& path);

// "\nBinary Images:\n" and one line per image: first and last address, name, the host's version twice, UUID,
// path.
std::string binaryImagesText(const std::vector<ListedImage>& images,
                             const std::optional<std::string>& bundleVersion);

}  // namespace qbv
