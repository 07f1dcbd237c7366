#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/portable/class_table.h"

namespace qbv::linux_backend {

Runtime& runtime() {
  static ClassTable* const instance = new ClassTable;
  return *instance;
}

}  // namespace qbv::linux_backend
