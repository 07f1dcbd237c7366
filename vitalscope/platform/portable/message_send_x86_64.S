// objc_msgSend and objc_msgSend_stret: see objc.h. A receiver's class has a cache, the cache a method for the
// selector, the method an implementation to jump to. Until the jump no register changes but r10 and r11, which
// carry no argument.

#if defined(__x86_64__)

#define CLASS_CACHE 8                   // objc_class: its MethodCache
#define CACHE_PLACES 8                  // MethodCache: mask, then places
#define METHOD_IMPLEMENTATION 8         // objc_method: selector, then implementation

// The first place is tried with as few instructions as can be; further ones start anew.
        .macro  look_up name, receiver, selector, selector32
        movq    (\receiver), %r10
        movq    CLASS_CACHE(%r10), %r10
        movl    \selector32, %r11d
        andl    (%r10), %r11d
        movq    CACHE_PLACES(%r10, %r11), %r10
        cmpq    \selector, (%r10)
        jne     .Lfurther_\name
        jmp     *METHOD_IMPLEMENTATION(%r10)
.Lfurther_\name:
        movq    (\receiver), %r10
        movq    CLASS_CACHE(%r10), %r10
        movl    \selector32, %r11d
        andl    (%r10), %r11d
        addq    %r10, %r11              // the first place, less CACHE_PLACES
.Lplace_\name:
        movq    CACHE_PLACES(%r11), %r10
        cmpq    \selector, (%r10)
        jne     .Lother_\name
        jmp     *METHOD_IMPLEMENTATION(%r10)
.Lother_\name:
        addq    $8, %r11
        cmpq    $0, METHOD_IMPLEMENTATION(%r10)         // a free place ends the search
        jne     .Lplace_\name
        .endm

// Not in the cache: asks with every argument put away, general registers here and the others by the callee.
        .macro  look_further receiver, selector
        pushq   %rbp
        .cfi_def_cfa_offset 16
        .cfi_offset %rbp, -16
        movq    %rsp, %rbp
        .cfi_def_cfa_register %rbp
        pushq   %rax                    // number of vector arguments
        pushq   %rdi
        pushq   %rsi
        pushq   %rdx
        pushq   %rcx
        pushq   %r8
        pushq   %r9
        subq    $8, %rsp                // to a multiple of 16
        movq    \selector, %rax
        movq    \receiver, %rsi
        movq    %rax, %rdx
        leaq    qbv_find_implementation(%rip), %rdi
        call    qbv_call_keeping_registers@PLT
        movq    %rax, %r11
        addq    $8, %rsp
        popq    %r9
        popq    %r8
        popq    %rcx
        popq    %rdx
        popq    %rsi
        popq    %rdi
        popq    %rax
        popq    %rbp
        .cfi_def_cfa %rsp, 8
        .cfi_restore %rbp
        jmp     *%r11
        .endm

        .hidden qbv_find_implementation

        .text
        .globl  objc_msgSend
        .type   objc_msgSend, @function
        .balign 64
objc_msgSend:
        .cfi_startproc
        endbr64
        testq   %rdi, %rdi
        jz      .Lnil
        look_up plain, %rdi, %rsi, %esi
        look_further %rdi, %rsi
.Lnil:  xorl    %eax, %eax
        xorl    %edx, %edx
        xorps   %xmm0, %xmm0
        xorps   %xmm1, %xmm1
        ret
        .cfi_endproc
        .size   objc_msgSend, . - objc_msgSend

        .globl  objc_msgSend_stret
        .type   objc_msgSend_stret, @function
        .balign 64
objc_msgSend_stret:
        .cfi_startproc
        endbr64
        testq   %rsi, %rsi
        jz      .Lnil_stret
        look_up stret, %rsi, %rdx, %edx
        look_further %rsi, %rdx
.Lnil_stret:
        movq    %rdi, %rax
        ret
        .cfi_endproc
        .size   objc_msgSend_stret, . - objc_msgSend_stret

#endif

        .section .note.GNU-stack, "", %progbits
