// hook_objc_msgSend and hook_objc_msgSend_stret: see QBMessageSendHook.h. Stand between a caller and the real
// message send and keep nothing on the machine stack while it runs, so that arguments passed there are where
// they are expected. The caller's return address is in the send's entry, whose address is in rbx meanwhile;
// the caller's rbx is in the entry too.
//
// Call and return stay paired, for the processor's return predictor and shadow stack: the caller's call is
// answered by a ret of ours, and our call by the method's ret.
//
// The steps touch general registers only, so vector, mask and x87 registers go through without being saved.
//
// Call-frame information is exact at every instruction. While the real send runs, the return address and rbx
// are found through rbx. The frame's canonical address is the entry's position: a byte between the callee's
// canonical address and the lowest that the caller's can be, so that unwinders tell the three frames apart.

#if defined(__x86_64__)

#define RETURN_ADDRESS 32               // dtp_stack_entry
#define SAVED_REGISTER 40
#define POSITION 48
#define TOP 0                           // dtp_thread_call_stack

// Position of the first send whose return address is at a place on the stack. Tail calls of it go down to +1.
#define FIRST_POSITION 15
#define POSITION_BITS 7

        .hidden dtp_begin_send, dtp_end_send, dtp_return_below, dtp_own_stack

        .macro  push_one register
        pushq   \register
        .cfi_adjust_cfa_offset 8
        .endm
        .macro  pop_one register
        popq    \register
        .cfi_adjust_cfa_offset -8
        .endm

        .macro  push_arguments
        push_one %rax                   // number of vector arguments
        push_one %rdi
        push_one %rsi
        push_one %rdx
        push_one %rcx
        push_one %r8
        push_one %r9                    // the stack is at a multiple of 16 now
        .endm
        .macro  pop_arguments
        pop_one %r9
        pop_one %r8
        pop_one %rcx
        pop_one %rdx
        pop_one %rsi
        pop_one %rdi
        pop_one %rax
        .endm
#define PUSHED 56

        // rbx and the return address as the entry in rbx has them.
        .macro  cfi_register_in_entry
        .cfi_escape 0x10, 3, 2, 0x73, SAVED_REGISTER            // rbx: at rbx + SAVED_REGISTER
        .endm
        .macro  cfi_all_in_entry
        cfi_register_in_entry
        .cfi_escape 0x10, 16, 2, 0x73, RETURN_ADDRESS           // return address: at rbx + RETURN_ADDRESS
        .cfi_escape 0x0f, 3, 0x73, POSITION, 0x06               // frame: the word at rbx + POSITION
        .cfi_escape 0x16, 7, 2, 0x77, 0                         // rsp: as it is
        .endm
        .macro  cfi_on_stack bytes
        .cfi_def_cfa %rsp, \bytes
        .cfi_restore %rip
        .cfi_restore %rsp
        .endm

        // Notes the send. Goes on with its entry in rbx and the stack as it was, or to `unnoted` with the
        // arguments still pushed.
        .macro  note_send receiver, selector, tail, unnoted
        push_arguments
        .ifnc   \receiver, %rdi
        movq    \receiver, %rdi
        movq    \selector, %rsi
        .endif
        movq    PUSHED(%rsp), %rdx
        .if     \tail
        movq    POSITION(%rbx), %rcx    // of the send whose method ended with this one
        decq    %rcx
        .else
        leaq    PUSHED + FIRST_POSITION(%rsp), %rcx
        .endif
        call    dtp_begin_send
        testq   %rax, %rax
        .cfi_remember_state
        jz      \unnoted
        movq    %rbx, SAVED_REGISTER(%rax)
        movq    %rax, %rbx
        cfi_register_in_entry
        pop_arguments
        .endm

        // The whole of a hook but what happens between the real send's call and the return. The first
        // instructions tell whether a method that was sent through here ends with this send in place of its
        // return: then the return point is ours, and rbx the first one's entry. After seven of these in a row
        // there are no positions left, and they go on unnoted. So do sends for which there is no memory.
        .macro  hook name, original, receiver, selector
        endbr64
        leaq    .Lreturned(%rip), %r11
        cmpq    %r11, (%rsp)
        .cfi_remember_state
        je      .Ltail_\name
        note_send \receiver, \selector, 0, .Lunnoted_\name
        movq    \original@GOTPCREL(%rip), %r11
        movq    (%r11), %r11
        .endm
        .macro  hook_aside name, original, receiver, selector
.Lunnoted_\name:
        .cfi_restore_state
        pop_arguments
.Lstraight_\name:
        movq    \original@GOTPCREL(%rip), %r11
        jmp     *(%r11)
.Ltail_\name:
        .cfi_restore_state
        movl    POSITION(%rbx), %r11d
        andl    $POSITION_BITS, %r11d
        cmpl    $1, %r11d
        je      .Lstraight_\name
        note_send \receiver, \selector, 1, .Lunnoted_tail_\name
        movq    \original@GOTPCREL(%rip), %r11
        movq    (%r11), %r11
        jmp     .Lsend
.Lunnoted_tail_\name:
        .cfi_restore_state
        pop_arguments
        jmp     .Lstraight_\name
        .endm

        .text
        .globl  hook_objc_msgSend
        .type   hook_objc_msgSend, @function
        .balign 64
hook_objc_msgSend:
        .cfi_startproc
        .cfi_personality 0x9b, DW.ref.__gxx_personality_v0
        .cfi_lsda 0x1b, .Lsites
        hook    plain, orig_objc_msgSend, %rdi, %rsi

        // The real send is in r11. Its call writes our return point where the caller's was.
.Lsend: leaq    8(%rsp), %rsp
        cfi_all_in_entry
.Lcall: call    *%r11
.Lreturned:
        movq    RETURN_ADDRESS(%rbx), %r11
        movq    %r11, -8(%rsp)          // signal handlers leave what is just below the stack pointer alone
        leaq    -8(%rsp), %rsp
        cfi_on_stack 8
        push_one %rax                   // results
        push_one %rdx
        push_one SAVED_REGISTER(%rbx)   // the entry may be another send's once it was given back
        .cfi_offset %rbx, -32
        movq    dtp_own_stack@GOTTPOFF(%rip), %r10
        movq    %fs:(%r10), %rdi
        cmpq    %rbx, TOP(%rdi)
        .cfi_remember_state
        jne     .Lbelow
        movq    %rbx, %rsi
.Lend:  call    dtp_end_send
        movq    %rax, 24(%rsp)
.Lback: pop_one %rbx
        .cfi_restore %rbx
        pop_one %rdx
        pop_one %rax
        ret

        // It is not the innermost send, or this is not its thread.
.Lbelow:
        .cfi_restore_state
        movq    %rbx, %rdi
        call    dtp_return_below
        movq    %rax, %rdi
        movq    %rbx, %rsi
        testq   %rdi, %rdi
        jnz     .Lend
        jmp     .Lback

        // An exception passes, and stays in rax; the rest is as at .Lreturned. Takes the note back and lets the
        // exception go on from a frame with the same canonical address: by that the unwinder knows the frame
        // in which it found the handler.
.Lpassing:
        cfi_all_in_entry
        movq    RETURN_ADDRESS(%rbx), %r11
        movq    %r11, -8(%rsp)
        leaq    -8(%rsp), %rsp
        cfi_on_stack 8
        push_one POSITION(%rbx)
        push_one SAVED_REGISTER(%rbx)
        .cfi_offset %rbx, -24
        push_one %rax
        movq    %rbx, %rdi
        call    dtp_return_below        // as a rule it is the innermost
        movq    %rax, %rdi
        movq    %rbx, %rsi
        testq   %rdi, %rdi
        jz      1f
        call    dtp_end_send
1:      pop_one %rdi
        pop_one %rbx
        .cfi_restore %rbx
        .cfi_escape 0x10, 16, 2, 0x77, 8                        // return address: at rsp + 8
        .cfi_escape 0x0f, 3, 0x77, 0, 0x06                      // frame: the word at rsp
        .cfi_escape 0x16, 7, 2, 0x77, 16                        // rsp: 16 more
.Lresume:
        call    _Unwind_Resume@PLT
.Lresumed:
        hlt

        hook_aside plain, orig_objc_msgSend, %rdi, %rsi
        .cfi_endproc
        .size   hook_objc_msgSend, . - hook_objc_msgSend

        .globl  hook_objc_msgSend_stret
        .type   hook_objc_msgSend_stret, @function
        .balign 64
hook_objc_msgSend_stret:
        .cfi_startproc
        hook    stret, orig_objc_msgSend_stret, %rsi, %rdx
        jmp     .Lsend
        hook_aside stret, orig_objc_msgSend_stret, %rsi, %rdx
        .cfi_endproc
        .size   hook_objc_msgSend_stret, . - hook_objc_msgSend_stret

        .section .data.rel.ro.local, "aw", @progbits
        .balign 8
        .globl  dtp_return_point
        .hidden dtp_return_point
        .type   dtp_return_point, @object
        .size   dtp_return_point, 8
dtp_return_point:
        .quad   .Lreturned

        // What the personality routine is to do when an exception passes.
        .section .gcc_except_table, "a", @progbits
.Lsites:
        .byte   0xff                    // landing pads count from the function's beginning
        .byte   0xff                    // no types
        .byte   0x01                    // the table's numbers are uleb128
        .uleb128 .Lsites_end - .Lsites_begin
.Lsites_begin:
        .uleb128 .Lcall - hook_objc_msgSend
        .uleb128 .Lreturned - .Lcall
        .uleb128 .Lpassing - hook_objc_msgSend
        .uleb128 0                      // clean-up only
        .uleb128 .Lresume - hook_objc_msgSend
        .uleb128 .Lresumed - .Lresume
        .uleb128 0
        .uleb128 0
.Lsites_end:

        .hidden DW.ref.__gxx_personality_v0
        .weak   DW.ref.__gxx_personality_v0
        .section .data.rel.local.DW.ref.__gxx_personality_v0, "awG", @progbits, DW.ref.__gxx_personality_v0, comdat
        .balign 8
        .type   DW.ref.__gxx_personality_v0, @object
        .size   DW.ref.__gxx_personality_v0, 8
DW.ref.__gxx_personality_v0:
        .quad   __gxx_personality_v0

#endif

        .section .note.GNU-stack, "", %progbits
