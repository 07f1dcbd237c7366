// Any bytes as an image's header, commands and tables: the look-up reads nothing outside of them and comes to
// an end. Input: the address to look up (8 bytes, slid), then the image; unslid address 0x10000 is its start.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzz/one_image.h"
#include "vitalscope/probes/symbolicate.h"

namespace {

constexpr std::uint64_t kStart = 0x10000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::uint64_t unslid = 0;
  if (size < sizeof unslid) return 0;
  std::memcpy(&unslid, data, sizeof unslid);
  qbv::fuzz::OneImage image(data + sizeof unslid, size - sizeof unslid, kStart);
  const std::uint64_t address = unslid + image.start() - kStart;
  const std::uint64_t addresses[] = {address, address + 8};
  qbv_symbol_record records[2];
  qbv::symbolicate(image, addresses, records, 2, 0);
  for (const qbv_symbol_record& record : records) {
    // The name ends inside the image: reading it to its end is what every caller does.
    if (record.symbol_name != nullptr && std::strlen(record.symbol_name) > size) std::abort();
    if (record.symbol_name != nullptr && record.image_path == nullptr) std::abort();
  }
  return 0;
}
