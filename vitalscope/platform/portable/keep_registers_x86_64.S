// qbv_call_keeping_registers: see keep_registers.h.

#if defined(__x86_64__)

// x87, SSE, AVX, mask registers, and both parts of AVX-512; the processor leaves out what it has not.
#define COMPONENTS 0xe7
#define LEGACY_BYTES 512

        .hidden qbv_vector_state_bytes
        .hidden qbv_measure_vector_state

        .text
        .globl  qbv_call_keeping_registers
        .type   qbv_call_keeping_registers, @function
        .balign 16
qbv_call_keeping_registers:
        .cfi_startproc
        endbr64
        pushq   %rbp
        .cfi_def_cfa_offset 16
        .cfi_offset %rbp, -16
        movq    %rsp, %rbp
        .cfi_def_cfa_register %rbp
        pushq   %rbx
        .cfi_offset %rbx, -24
        pushq   %r12
        .cfi_offset %r12, -32
        pushq   %r13
        .cfi_offset %r13, -40
        pushq   %r14
        .cfi_offset %r14, -48
        movq    %rdi, %rbx              // function
        movq    %rsi, %r12              // its arguments
        movq    %rdx, %r13

        movl    qbv_vector_state_bytes(%rip), %r14d
        testl   %r14d, %r14d
        jnz     1f
        call    qbv_measure_vector_state        // touches general registers alone
        movl    %eax, %r14d
1:      subq    %r14, %rsp
        andq    $-64, %rsp
        cmpl    $LEGACY_BYTES, %r14d
        ja      2f
        fxsave64 (%rsp)
        jmp     3f
2:      xorl    %eax, %eax              // the header: no component saved yet, and the rest must be 0
        .irp    offset, 512, 520, 528, 536, 544, 552, 560, 568
        movq    %rax, \offset(%rsp)
        .endr
        movl    $COMPONENTS, %eax
        xorl    %edx, %edx
        xsave64 (%rsp)

3:      movq    %r12, %rdi
        movq    %r13, %rsi
        call    *%rbx
        movq    %rax, %r12

        cmpl    $LEGACY_BYTES, %r14d
        ja      4f
        fxrstor64 (%rsp)
        jmp     5f
4:      movl    $COMPONENTS, %eax
        xorl    %edx, %edx
        xrstor64 (%rsp)

5:      movq    %r12, %rax
        leaq    -32(%rbp), %rsp
        popq    %r14
        .cfi_restore %r14
        popq    %r13
        .cfi_restore %r13
        popq    %r12
        .cfi_restore %r12
        popq    %rbx
        .cfi_restore %rbx
        popq    %rbp
        .cfi_def_cfa %rsp, 8
        .cfi_restore %rbp
        ret
        .cfi_endproc
        .size   qbv_call_keeping_registers, . - qbv_call_keeping_registers

#endif

        .section .note.GNU-stack, "", %progbits
