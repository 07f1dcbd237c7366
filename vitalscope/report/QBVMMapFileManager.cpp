#include "vitalscope/report/QBVMMapFileManager.h"

#include "vitalscope/platform/platform.h"

namespace {

std::int32_t append(int descriptor, const char* text) {
  const auto oldSize = qbv::platform().files.size(descriptor);
  if (!oldSize) return 1;
  const std::size_t length = QBVMMapFileManager::handle_strlen(text);
  const std::uint64_t newSize = *oldSize + length;
  void* mapping = nullptr;
  const std::int32_t error = QBVMMapFileManager::MapFile(descriptor, &mapping, newSize);
  if (error != 0) return error;
  QBVMMapFileManager::handle_memcyp(static_cast<char*>(mapping) + *oldSize, text, length);
  qbv::platform().files.unmap(mapping, newSize);
  return 0;
}

}  // namespace

bool QBVMMapFileManager::writeContent(const std::optional<std::string>& text,
                                      const std::optional<std::string>& path) {
  return text && path && ProcessFile(path->c_str(), text->c_str()) == 0;
}

std::int32_t QBVMMapFileManager::ProcessFile(const char* path, const char* text) {
  if (path == nullptr || text == nullptr) return -1;
  qbv::Files& files = qbv::platform().files;
  const int descriptor = files.open(path, false);
  if (descriptor < 0) return 1;
  const std::int32_t result = append(descriptor, text);
  files.close(descriptor);
  return result;
}

std::int32_t QBVMMapFileManager::MapFile(int descriptor, void** mapping, std::uint64_t size) {
  *mapping = nullptr;
  qbv::Files& files = qbv::platform().files;
  if (const int error = files.map(descriptor, size, mapping); error != 0) return error;
  // Storing past the end of a file that did not grow would end the process.
  if (const int error = files.setSize(descriptor, size); error != 0) {
    files.unmap(*mapping, size);
    *mapping = nullptr;
    return error;
  }
  files.sync(descriptor);
  return 0;
}

std::size_t QBVMMapFileManager::handle_strlen(const char* text) {
  if (text == nullptr) return 0;
  std::size_t length = 0;
  while (text[length] != '\0') ++length;
  return length;
}

void QBVMMapFileManager::handle_memcyp(void* destination, const void* source, std::size_t count) {
  auto* to = static_cast<unsigned char*>(destination);
  const auto* from = static_cast<const unsigned char*>(source);
  for (std::size_t i = 0; i < count; ++i) to[i] = from[i];
}
