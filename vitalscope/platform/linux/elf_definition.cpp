#include "vitalscope/platform/linux/elf_definition.h"

#include <algorithm>
#include <cstring>

#include "vitalscope/platform/linux/elf_tables.h"

namespace qbv::linux_backend {

namespace {

constexpr std::uint16_t kOldVersion = 0x8000;

struct GnuHash {
  std::uint32_t buckets, offset, bloom, shift;
};
struct SysvHash {
  std::uint32_t buckets, chains;
};

std::uint32_t gnuHashOf(const char* name) {
  std::uint32_t hash = 5381;
  for (; *name != '\0'; ++name) hash = hash * 33 + static_cast<std::uint8_t>(*name);
  return hash;
}

std::uint32_t sysvHashOf(const char* name) {
  std::uint32_t hash = 0;
  for (; *name != '\0'; ++name) {
    hash = (hash << 4) + static_cast<std::uint8_t>(*name);
    const std::uint32_t high = hash & 0xf0000000U;
    hash = (hash ^ (high >> 24)) & ~high;
  }
  return hash;
}

class Lookup {
 public:
  Lookup(const ByteSource& memory, const ElfObject& object, const char* name)
      : memory_(memory), object_(object), facts_(dynamicFacts(memory, object)), name_(name) {}

  std::optional<Definition> definition() {
    visit([this](std::uint64_t index) { return take(index); });
    return found_;
  }

  bool standsInAt(std::uint64_t address) {
    bool found = false;
    visit([&](std::uint64_t index) {
      ElfW(Sym) symbol{};
      found = readSymbol(index, symbol) && symbol.st_shndx == SHN_UNDEF && symbol.st_value != 0 &&
              symbol.st_value + object_.slide == address && named(symbol);
      return found;
    });
    return found;
  }

 private:
  bool readSymbol(std::uint64_t index, ElfW(Sym) & symbol) const {
    return memory_.read(facts_.symbols + index * sizeof symbol, symbol);
  }

  bool named(const ElfW(Sym) & symbol) const {
    const std::uint64_t size = std::strlen(name_) + 1;
    if (symbol.st_name >= facts_.stringsSize || size > facts_.stringsSize - symbol.st_name) return false;
    char piece[64];
    for (std::uint64_t done = 0; done < size;) {
      const std::size_t part = std::min<std::uint64_t>(size - done, sizeof piece);
      if (!memory_.read(facts_.strings + symbol.st_name + done, piece, part)) return false;
      if (std::memcmp(piece, name_ + done, part) != 0) return false;
      done += part;
    }
    return true;
  }

  // True when no better one can follow.
  bool take(std::uint64_t index) {
    ElfW(Sym) symbol{};
    if (!readSymbol(index, symbol) || symbol.st_shndx == SHN_UNDEF || !named(symbol)) return false;
    const unsigned binding = ELF64_ST_BIND(symbol.st_info);
    const unsigned type = ELF64_ST_TYPE(symbol.st_info);
    if (binding == STB_LOCAL || type == STT_TLS || symbol.st_shndx == SHN_ABS) return false;
    std::uint16_t version = 0;
    if (facts_.versions != 0) memory_.read(facts_.versions + index * sizeof version, version);
    const bool old = (version & kOldVersion) != 0;
    if (!found_ || !old) found_ = Definition{object_.slide + symbol.st_value, type == STT_GNU_IFUNC, old};
    return !old;
  }

  // The hashed symbols that may have the name, until `enough` says so.
  template <typename Enough>
  void visit(Enough enough) {
    if (facts_.symbols == 0 || facts_.strings == 0) return;
    if (facts_.gnuHash != 0) {
      byGnuHash(enough);
    } else if (facts_.hash != 0) {
      bySysvHash(enough);
    }
  }

  template <typename Enough>
  void byGnuHash(Enough enough) {
    GnuHash head{};
    if (!memory_.read(facts_.gnuHash, head) || head.buckets == 0) return;
    const std::uint32_t hash = gnuHashOf(name_);
    const std::uint64_t buckets =
        facts_.gnuHash + sizeof head + std::uint64_t{head.bloom} * sizeof(ElfW(Addr));
    const std::uint64_t chains = buckets + std::uint64_t{head.buckets} * sizeof(std::uint32_t);
    std::uint32_t index = 0;
    if (!memory_.read(buckets + hash % head.buckets * sizeof index, index) || index < head.offset) return;
    for (std::uint32_t link = 0;; ++index) {
      if (!memory_.read(chains + (std::uint64_t{index} - head.offset) * sizeof link, link)) return;
      if ((link | 1U) == (hash | 1U) && enough(index)) return;
      if ((link & 1U) != 0) return;
    }
  }

  template <typename Enough>
  void bySysvHash(Enough enough) {
    SysvHash head{};
    if (!memory_.read(facts_.hash, head) || head.buckets == 0) return;
    const std::uint64_t buckets = facts_.hash + sizeof head;
    const std::uint64_t chains = buckets + std::uint64_t{head.buckets} * sizeof(std::uint32_t);
    std::uint32_t index = 0;
    if (!memory_.read(buckets + sysvHashOf(name_) % head.buckets * sizeof index, index)) return;
    for (std::uint32_t steps = 0; index != 0 && steps < head.chains; ++steps) {
      if (enough(index) || !memory_.read(chains + std::uint64_t{index} * sizeof index, index)) return;
    }
  }

  const ByteSource& memory_;
  const ElfObject& object_;
  DynamicFacts facts_;
  const char* name_;
  std::optional<Definition> found_;
};

}  // namespace

std::optional<Definition> definitionIn(const ByteSource& memory, const ElfObject& object, const char* name) {
  return Lookup(memory, object, name).definition();
}

bool isStandInFor(const ByteSource& memory, const ElfObject& object, const char* name,
                  std::uint64_t address) {
  return Lookup(memory, object, name).standsInAt(address);
}

}  // namespace qbv::linux_backend
