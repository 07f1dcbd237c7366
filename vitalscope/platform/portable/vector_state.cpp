// How much room this processor's vector registers take. Compiled to touch general registers alone.

#if defined(__x86_64__)

#include <cpuid.h>

extern "C" {

// Bytes that saving takes; 512 when there is nothing but what every processor has. 0: not measured yet. Any
// thread may measure, all find the same.
[[gnu::visibility("hidden")]] unsigned qbv_vector_state_bytes = 0;

[[gnu::visibility("hidden")]] unsigned qbv_measure_vector_state() {
  constexpr unsigned kLegacyBytes = 512, kHeaderBytes = 64;
  constexpr unsigned kExtended = 0xd;               // the leaf that tells of register state
  constexpr unsigned kComponents[] = {2, 5, 6, 7};  // AVX, mask registers, both parts of AVX-512
  unsigned a = 0, b = 0, c = 0, d = 0;
  unsigned bytes = kLegacyBytes;
  const bool systemSaves = __get_cpuid(1, &a, &b, &c, &d) != 0 && (c & bit_OSXSAVE) != 0;
  if (systemSaves && static_cast<unsigned>(__get_cpuid_max(0, nullptr)) >= kExtended) {
    bytes += kHeaderBytes;
    for (const unsigned component : kComponents) {
      __cpuid_count(kExtended, component, a, b, c, d);
      const unsigned end = a == 0 ? 0 : a + b;  // size and offset
      if (end > bytes) bytes = end;
    }
  }
  __atomic_store_n(&qbv_vector_state_bytes, bytes, __ATOMIC_RELAXED);
  return bytes;
}

}  // extern "C"

#endif
