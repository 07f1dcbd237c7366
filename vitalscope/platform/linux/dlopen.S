// dlopen: lets the library watch know, then jumps to the C library's own with the stack and the arguments as
// they came. That one takes its caller, whose run path counts, from the return address; a function that
// called it would be taken for the caller.

#if defined(__x86_64__)

        .text
        .globl  dlopen
        .type   dlopen, @function
        .balign 16
dlopen:
        .cfi_startproc
        endbr64
        pushq   %rdi                    // file
        .cfi_adjust_cfa_offset 8
        pushq   %rsi                    // mode
        .cfi_adjust_cfa_offset 8
        subq    $8, %rsp                // to a multiple of 16
        .cfi_adjust_cfa_offset 8
        call    qbv_before_dlopen
        addq    $8, %rsp
        .cfi_adjust_cfa_offset -8
        popq    %rsi
        .cfi_adjust_cfa_offset -8
        popq    %rdi
        .cfi_adjust_cfa_offset -8
        jmp     *%rax
        .cfi_endproc
        .size   dlopen, . - dlopen
        .hidden qbv_before_dlopen

#elif defined(__aarch64__)

        .text
        .globl  dlopen
        .type   dlopen, %function
        .balign 16
dlopen:
        .cfi_startproc
        hint    #34                     // bti c
        stp     x29, x30, [sp, #-32]!   // frame record
        .cfi_def_cfa_offset 32
        .cfi_offset x29, -32
        .cfi_offset x30, -24
        mov     x29, sp
        stp     x0, x1, [sp, #16]       // file, mode
        bl      qbv_before_dlopen
        mov     x16, x0                 // a jump through x16 may land on a call's landing pad
        ldp     x0, x1, [sp, #16]
        ldp     x29, x30, [sp], #32
        .cfi_restore x29
        .cfi_restore x30
        .cfi_def_cfa_offset 0
        br      x16
        .cfi_endproc
        .size   dlopen, . - dlopen
        .hidden qbv_before_dlopen

#endif

        .section .note.GNU-stack, "", %progbits
