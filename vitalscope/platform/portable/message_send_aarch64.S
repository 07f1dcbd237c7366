// objc_msgSend: see objc.h. A receiver's class has a cache, the cache a method for the selector, the method an
// implementation to jump to. Until the jump no register changes but x9, x16 and x17, which carry no argument.
// Every load's address comes from the load before it, so they happen in this order.

#if defined(__aarch64__)

#define CLASS_CACHE 8                   // objc_class: its MethodCache
#define CACHE_PLACES 8                  // MethodCache: mask, then places
#define METHOD_IMPLEMENTATION 8         // objc_method: selector, then implementation

        .hidden qbv_find_implementation

        .text
        .globl  objc_msgSend
        .type   objc_msgSend, %function
        .balign 64
objc_msgSend:
        .cfi_startproc
        hint    #34                     // bti c
        cbz     x0, .Lnil
        ldr     x16, [x0]
        ldr     x16, [x16, #CLASS_CACHE]
        ldr     x17, [x16]
        and     x17, x17, x1
        add     x17, x16, x17           // the first place, less CACHE_PLACES
1:      ldr     x16, [x17, #CACHE_PLACES]!
        ldr     x9, [x16]
        cmp     x9, x1
        ldr     x16, [x16, #METHOD_IMPLEMENTATION]
        b.ne    2f
        br      x16
2:      cbnz    x16, 1b                 // a free place ends the search

        // Not in the cache: asks with every argument put away, general registers here and the others by the
        // callee.
        stp     x29, x30, [sp, #-96]!
        .cfi_def_cfa_offset 96
        .cfi_offset x29, -96
        .cfi_offset x30, -88
        mov     x29, sp
        stp     x0, x1, [sp, #16]
        stp     x2, x3, [sp, #32]
        stp     x4, x5, [sp, #48]
        stp     x6, x7, [sp, #64]
        str     x8, [sp, #80]           // where a large result goes
        mov     x2, x1
        mov     x1, x0
        adrp    x0, qbv_find_implementation
        add     x0, x0, :lo12:qbv_find_implementation
        bl      qbv_call_keeping_registers
        mov     x16, x0
        ldp     x0, x1, [sp, #16]
        ldp     x2, x3, [sp, #32]
        ldp     x4, x5, [sp, #48]
        ldp     x6, x7, [sp, #64]
        ldr     x8, [sp, #80]
        ldp     x29, x30, [sp], #96
        .cfi_restore x29
        .cfi_restore x30
        .cfi_def_cfa_offset 0
        br      x16                     // by x16 it may land on a call's landing pad

.Lnil:  mov     x1, #0                  // x0 is nil
        movi    v0.2d, #0
        movi    v1.2d, #0
        movi    v2.2d, #0
        movi    v3.2d, #0
        ret
        .cfi_endproc
        .size   objc_msgSend, . - objc_msgSend

#endif

        .section .note.GNU-stack, "", %progbits
