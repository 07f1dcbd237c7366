// qbv_call_keeping_registers: see keep_registers.h. Of v8 to v15 a callee keeps the lower halves itself, but
// only those. The registers of scalable vectors beyond their first 16 bytes are not kept.

#if defined(__aarch64__)

        .text
        .globl  qbv_call_keeping_registers
        .type   qbv_call_keeping_registers, %function
        .balign 16
qbv_call_keeping_registers:
        .cfi_startproc
        hint    #34                     // bti c
        stp     x29, x30, [sp, #-32]!
        .cfi_def_cfa_offset 32
        .cfi_offset x29, -32
        .cfi_offset x30, -24
        mov     x29, sp
        .cfi_def_cfa_register x29
        str     x19, [sp, #16]
        .cfi_offset x19, -16
        sub     sp, sp, #528
        stp     q0, q1, [sp, #16]
        stp     q2, q3, [sp, #48]
        stp     q4, q5, [sp, #80]
        stp     q6, q7, [sp, #112]
        stp     q8, q9, [sp, #144]
        stp     q10, q11, [sp, #176]
        stp     q12, q13, [sp, #208]
        stp     q14, q15, [sp, #240]
        stp     q16, q17, [sp, #272]
        stp     q18, q19, [sp, #304]
        stp     q20, q21, [sp, #336]
        stp     q22, q23, [sp, #368]
        stp     q24, q25, [sp, #400]
        stp     q26, q27, [sp, #432]
        stp     q28, q29, [sp, #464]
        stp     q30, q31, [sp, #496]
        mrs     x9, fpcr
        mrs     x10, fpsr
        stp     x9, x10, [sp]

        mov     x9, x0                  // function
        mov     x0, x1                  // its arguments
        mov     x1, x2
        blr     x9

        ldp     x9, x10, [sp]
        msr     fpcr, x9
        msr     fpsr, x10
        ldp     q0, q1, [sp, #16]
        ldp     q2, q3, [sp, #48]
        ldp     q4, q5, [sp, #80]
        ldp     q6, q7, [sp, #112]
        ldp     q8, q9, [sp, #144]
        ldp     q10, q11, [sp, #176]
        ldp     q12, q13, [sp, #208]
        ldp     q14, q15, [sp, #240]
        ldp     q16, q17, [sp, #272]
        ldp     q18, q19, [sp, #304]
        ldp     q20, q21, [sp, #336]
        ldp     q22, q23, [sp, #368]
        ldp     q24, q25, [sp, #400]
        ldp     q26, q27, [sp, #432]
        ldp     q28, q29, [sp, #464]
        ldp     q30, q31, [sp, #496]
        mov     sp, x29
        .cfi_def_cfa_register sp
        ldr     x19, [sp, #16]
        .cfi_restore x19
        ldp     x29, x30, [sp], #32
        .cfi_restore x29
        .cfi_restore x30
        .cfi_def_cfa_offset 0
        ret
        .cfi_endproc
        .size   qbv_call_keeping_registers, . - qbv_call_keeping_registers

#endif

        .section .note.GNU-stack, "", %progbits
