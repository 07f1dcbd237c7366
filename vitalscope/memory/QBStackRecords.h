// The records that describe allocations and the stacks they came from.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// At most this many return addresses of a stack are kept.
enum { qb_stack_max_depth = 64 };

// What is known about one live block.
struct base_ptr_log {
  uint64_t stack_id;  // the stack that allocated it
  uint32_t size;      // bytes
};

// One event to be counted under a stack.
struct base_stack_t {
  uint32_t depth;          // addresses in `frames`, at most qb_stack_max_depth
  const uint64_t* frames;  // return addresses, innermost first; the caller's
  uint32_t size;           // bytes allocated in this event
  uint32_t alloc_type;     // 0 for the heap; a stack of type 1 never makes the stack file grow
  uint32_t count;          // allocations in this event
};

// All that is still alive of one stack. Entry of QBStacksHashmap.
struct merge_stack_t {
  uint64_t stack_id;           // key: rapid_crc64 of the stack
  uint32_t count;              // allocations; wraps
  uint32_t is_logged;          // 1 while the stack is meant to stand in the stack file, else 0
  uint32_t size;               // bytes; wraps
  struct merge_stack_t* next;  // in the same bucket
};

// One live block. Entry of QBPtrsHashmap.
struct ptr_node {
  uint64_t stack_id;
  uint32_t size;
  uint64_t address;  // key
  struct ptr_node* next;
};

#ifdef __cplusplus
}
#endif
