#include "vitalscope/memory/QBBaseHashmap.h"

#include <algorithm>

QBBaseHashmap::QBBaseHashmap(std::uint64_t bucketCount, qbv::MallocZone* zone)
    : entryNum_(std::max<std::uint64_t>(bucketCount, 2)), zone_(zone) {
  hashmapEntry_ = zone->calloc(entryNum_, sizeof(void*));
}

QBBaseHashmap::~QBBaseHashmap() {
  hashmap_free(hashmapEntry_);
}
