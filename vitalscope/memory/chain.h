// Singly linked chains of table entries.
#pragma once

#include <cstdint>

#include "vitalscope/memory/QBBaseHashmap.h"

namespace qbv {

// The link that leads to the entry with the key: the bucket's head or the `next` of the entry before it. The
// null link at the chain's end when no entry has the key. `examined` gains one per entry after the first that
// is looked at.
template <auto KeyMember, class Entry>
Entry** linkTo(Entry** head, std::uint64_t key, std::uint64_t& examined) {
  Entry** link = head;
  while (*link != nullptr && (*link)->*KeyMember != key) {
    link = &(*link)->next;
    if (*link != nullptr) ++examined;
  }
  return link;
}

template <auto KeyMember, class Entry>
Entry** linkTo(Entry** head, std::uint64_t key) {
  std::uint64_t uncounted = 0;
  return linkTo<KeyMember>(head, key, uncounted);
}

// Empties the buckets in order and gives every entry back to the table's zone.
template <class Entry>
void freeChains(QBBaseHashmap& table) {
  auto** const heads = static_cast<Entry**>(table.getHashmapEntry());
  if (heads == nullptr) return;
  for (std::uint64_t bucket = 0; bucket < table.getEntryNum(); ++bucket)
    for (Entry* entry = heads[bucket]; entry != nullptr;) {
      Entry* const next = entry->next;
      table.hashmap_free(entry);
      entry = next;
    }
}

}  // namespace qbv
