#include "vitalscope/probes/symbol_memory.h"

namespace qbv {

void SymbolMemory::symbolicate(const AddressList& list, qbv_symbol_record* records) {
  std::array<std::uint64_t, maximumFrames> unknown;
  std::array<std::size_t, maximumFrames> indexes;
  std::size_t count = 0;
  for (std::size_t i = 0; i < list.count; ++i) {
    const Place& place = placeOf(keyOf(list, i));
    if (place.key == keyOf(list, i) && place.key != 0) {
      records[i] = place.record;
    } else {
      unknown[count] = list.addresses[i];
      indexes[count++] = i;
    }
  }
  if (count == 0) return;
  std::array<qbv_symbol_record, maximumFrames> found;
  qbv_symbolicate(unknown.data(), found.data(), static_cast<int>(count), indexes[0] == 0 ? 0 : 1);
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint64_t key = keyOf(list, indexes[i]);
    placeOf(key) = {key, found[i]};
    records[indexes[i]] = found[i];
  }
}

}  // namespace qbv
