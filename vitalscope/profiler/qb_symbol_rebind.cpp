#include "vitalscope/profiler/qb_symbol_rebind.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <vector>

#include "vitalscope/platform/platform.h"
#include "vitalscope/profiler/slot_tables.h"

using qbv::platform;

namespace {

constexpr int kMostPasses = 16;

constinit std::atomic<qb_rebindings_entry*> gNewest{nullptr};

// The name lies behind the request, in the same block.
qb_rebinding* copyOf(const qb_rebinding& rebinding) {
  const std::size_t size = std::strlen(rebinding.name) + 1;
  void* const block = std::malloc(sizeof(qb_rebinding) + size);
  if (block == nullptr) return nullptr;
  char* const name = static_cast<char*>(block) + sizeof(qb_rebinding);
  std::memcpy(name, rebinding.name, size);
  return new (block) qb_rebinding{name, rebinding.replacement, rebinding.replaced};
}

qb_rebindings_entry* nodeFor(const qb_rebinding& rebinding) {
  void* const node = std::malloc(sizeof(qb_rebindings_entry));
  qb_rebinding* const copy = node != nullptr ? copyOf(rebinding) : nullptr;
  if (copy == nullptr) {
    std::free(node);
    return nullptr;
  }
  return new (node) qb_rebindings_entry{copy, 1, nullptr};
}

// The requests that can decide: the first of each name.
class Requests {
 public:
  explicit Requests(const qb_rebindings_entry* head) {
    for (const qb_rebindings_entry* node = head; node != nullptr; node = node->next) {
      for (std::size_t i = 0; i < node->rebindings_nel; ++i) {
        if (decide(node->rebindings[i].name) == nullptr) deciding_.push_back(&node->rebindings[i]);
      }
    }
  }
  const qb_rebinding* decide(const char* name) const {
    for (const qb_rebinding* request : deciding_) {
      if (std::strcmp(name, request->name) == 0) return request;
    }
    return nullptr;
  }

 private:
  std::vector<const qb_rebinding*> deciding_;
};

using FunctionBehind =
    std::function<std::uint64_t(const char* name, std::uint64_t slot, std::uint64_t value)>;

void rewrite(std::uint64_t address, const qb_rebinding& request, const FunctionBehind& functionBehind) {
  const std::atomic_ref slot(*reinterpret_cast<void**>(address));
  void* const present = slot.load(std::memory_order_acquire);
  if (request.replaced != nullptr && present != request.replacement) {
    const std::uint64_t function =
        functionBehind(request.name, address, reinterpret_cast<std::uint64_t>(present));
    std::atomic_ref(*request.replaced).store(reinterpret_cast<void*>(function), std::memory_order_release);
  }
  slot.store(request.replacement, std::memory_order_release);
}

void makeWritable(const qbv::section_64& section, std::uint64_t address) {
  if (std::strncmp(section.segname, "__DATA_CONST", sizeof section.segname) != 0) return;
  const int result = platform().images.vm_protect(address, section.size, false,
                                                  qbv::VM_PROT_READ | qbv::VM_PROT_WRITE | qbv::VM_PROT_COPY);
  if (result != 0)
    qbv::assertionFailure("qb_perform_rebinding_with_section", "qb_symbol_rebind", 103,
                          "false && \"vm_protect() failure.\"");
}

void rebindSection(const Requests& requests, const qbv::section_64& section, std::intptr_t slide,
                   const qbv::SlotNames& names, const FunctionBehind& functionBehind) {
  const std::uint64_t first = static_cast<std::uint64_t>(slide) + section.addr;
  const std::uint64_t count = section.size / sizeof(void*);
  if (count == 0 || first % alignof(void*) != 0) return;
  makeWritable(section, first);
  for (std::uint64_t i = 0; i < count; ++i) {
    const char* const name = names.at(section.reserved1 + i);
    const qb_rebinding* const request = name != nullptr ? requests.decide(name + 1) : nullptr;
    if (request != nullptr) rewrite(first + i * sizeof(void*), *request, functionBehind);
  }
}

// Images are held one at a time, so a list that is looked up meanwhile is never applied after a newer one.
template <typename Head>
void rebindImage(Head head, const qbv::mach_header_64* header, std::intptr_t slide) {
  qbv::Images& images = platform().images;
  images.whileLoaded(header, [&](std::uint32_t index) {
    const Requests requests(head());
    const qbv::SlotTables tables(images, index, header, slide);
    const FunctionBehind functionBehind = [&](const char* name, std::uint64_t slot, std::uint64_t value) {
      return images.functionBehind(index, name, slot, value);
    };
    for (const qbv::section_64& section : tables.sections()) {
      if (images.holdsData(index, static_cast<std::uint64_t>(slide) + section.addr, section.size))
        rebindSection(requests, section, slide, tables, functionBehind);
    }
  });
}

const qb_rebindings_entry* newest() {
  return gNewest.load(std::memory_order_acquire);
}

// False when the loader was still at work on an image.
bool rebindAll() {
  qbv::Images& images = platform().images;
  bool all = true;
  const std::uint32_t count = images.settledImageCount();
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto* const header = static_cast<const qbv::mach_header_64*>(images.headerWithSlots(i));
    if (header != nullptr) rebindImage(newest, header, images._dyld_get_image_vmaddr_slide(i));
    all = all && (header != nullptr || images._dyld_get_image_header(i) == nullptr);
  }
  return all;
}

}  // namespace

void qb_rebind_symbols(const qb_rebinding* rebinding) {
  qb_rebindings_entry* const node = nodeFor(*rebinding);
  if (node == nullptr) return;
  qb_rebindings_entry* older = gNewest.load(std::memory_order_relaxed);
  do node->next = older;
  while (!gNewest.compare_exchange_weak(older, node, std::memory_order_release, std::memory_order_relaxed));
  if (older == nullptr) {
    platform().images._dyld_register_func_for_add_image(qb_rebind_image_added);
    return;
  }
  for (int attempt = 0; attempt < kMostPasses && !rebindAll(); ++attempt) {
  }
}

void qb_rebind_symbols_for_image(const qb_rebindings_entry* head, const qbv::mach_header_64* header,
                                 std::intptr_t slide) {
  rebindImage([head] { return head; }, header, slide);
}

void qb_rebind_image_added(const qbv::mach_header_64* header, std::intptr_t slide) {
  rebindImage(newest, header, slide);
}

void qb_perform_rebinding_with_section(const qb_rebindings_entry* head, const qbv::section_64* section,
                                       std::intptr_t slide, const qbv::nlist_64* symbols, const char* strings,
                                       const std::uint32_t* indirectSymbols) {
  qbv::Images& images = platform().images;
  const FunctionBehind functionBehind = [&](const char* name, std::uint64_t slot, std::uint64_t value) {
    const std::optional<std::uint32_t> index = images.likelyImage(slot);
    return index ? images.functionBehind(*index, name, slot, value) : value;
  };
  rebindSection(Requests(head), *section, slide, qbv::BelievedSlotNames(symbols, strings, indirectSymbols),
                functionBehind);
}
