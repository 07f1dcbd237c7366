#include "vitalscope/probes/QBVSymbolication.h"

#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/symbolicate.h"

void qbv_symbolicate(const uint64_t* addresses, qbv_symbol_record* records, int count, int skipped) {
  qbv::symbolicate(qbv::platform().images, addresses, records, count, skipped);
}
