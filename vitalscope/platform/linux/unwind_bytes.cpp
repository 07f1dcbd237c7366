#include "vitalscope/platform/linux/unwind_bytes.h"

namespace qbv::linux_backend {

namespace {

std::uint64_t widen(std::int64_t value) {
  return static_cast<std::uint64_t>(value);
}

}  // namespace

void ByteReader::fail() {
  ok_ = false;
  at_ = end_;
}

void ByteReader::skip(std::uint64_t size) {
  if (require(size)) at_ += size;
}

Extent ByteReader::block(std::uint64_t size) {
  if (!require(size)) return {};
  const Extent taken{at_, at_ + size};
  at_ += size;
  return taken;
}

std::uint64_t ByteReader::longUleb() {
  std::uint64_t value = 0;
  unsigned shift = 0;
  std::uint8_t byte = 0;
  do {
    byte = u8();
    if (shift < 64) value |= std::uint64_t{byte & 0x7fU} << shift;
    shift += 7;
  } while ((byte & 0x80) != 0);
  return value;
}

std::int64_t ByteReader::sleb() {
  std::uint64_t value = 0;
  unsigned shift = 0;
  std::uint8_t byte = 0;
  do {
    byte = u8();
    if (shift < 64) value |= std::uint64_t{byte & 0x7fU} << shift;
    if (shift < 64) shift += 7;
  } while ((byte & 0x80) != 0);
  if (shift < 64 && (byte & 0x40) != 0) value |= ~std::uint64_t{0} << shift;
  return static_cast<std::int64_t>(value);
}

std::uint64_t ByteReader::pointerValue(std::uint8_t format) {
  switch (format) {
    case 0x00:
    case 0x04:
    case 0x0c:
      return fixed<std::uint64_t>();
    case 0x01:
      return uleb();
    case 0x02:
      return fixed<std::uint16_t>();
    case 0x03:
      return fixed<std::uint32_t>();
    case 0x09:
      return widen(sleb());
    case 0x0a:
      return widen(fixed<std::int16_t>());
    case 0x0b:
      return widen(fixed<std::int32_t>());
    default:
      fail();
      return 0;
  }
}

std::uint64_t ByteReader::pointer(std::uint8_t encoding, std::uint64_t dataBase) {
  if (encoding == kPointerOmitted) return 0;
  if ((encoding & 0x7f) == kPointerAligned) {
    skip((8 - at_ % 8) % 8);
    return fixed<std::uint64_t>();
  }
  const std::uint64_t place = at_;
  const std::uint64_t value = pointerValue(encoding & 0x0f);
  switch (encoding & 0x70) {
    case 0x00:
      return value;
    case 0x10:
      return place + value;
    case 0x30:
      return dataBase + value;
    default:
      fail();
      return 0;
  }
}

}  // namespace qbv::linux_backend
