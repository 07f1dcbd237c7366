// hook_objc_msgSend: see QBMessageSendHook.h, and the file for x86-64, whose way this goes. What differs: the
// return address comes and goes in x30, the entry is in x19 while the real send runs, and large results need
// no entry of their own.

#if defined(__aarch64__)

#define RETURN_ADDRESS 32               // dtp_stack_entry
#define SAVED_REGISTER 40
#define POSITION 48
#define TOP 0                           // dtp_thread_call_stack

// Position of the first send from a stack pointer. Tail calls of it go down to +9.
#define FIRST_POSITION 15
#define POSITION_BITS 7

        .hidden dtp_begin_send, dtp_end_send, dtp_return_below, dtp_own_stack

        // x0 to x7, the place of a large result, and a frame record.
#define ARGUMENT_FRAME 96
        .macro  push_arguments
        stp     x29, x30, [sp, #-ARGUMENT_FRAME]!
        .cfi_def_cfa_offset ARGUMENT_FRAME
        .cfi_offset x29, -ARGUMENT_FRAME
        .cfi_offset x30, 8 - ARGUMENT_FRAME
        mov     x29, sp
        stp     x0, x1, [sp, #16]
        stp     x2, x3, [sp, #32]
        stp     x4, x5, [sp, #48]
        stp     x6, x7, [sp, #64]
        str     x8, [sp, #80]
        .endm
        .macro  pop_arguments
        ldp     x0, x1, [sp, #16]
        ldp     x2, x3, [sp, #32]
        ldp     x4, x5, [sp, #48]
        ldp     x6, x7, [sp, #64]
        ldr     x8, [sp, #80]
        ldp     x29, x30, [sp], #ARGUMENT_FRAME
        .cfi_restore x29
        .cfi_restore x30
        .cfi_def_cfa_offset 0
        .endm

        // x19 and the return address as the entry in x19 has them.
        .macro  cfi_register_in_entry
        .cfi_escape 0x10, 19, 2, 0x83, SAVED_REGISTER           // x19: at x19 + SAVED_REGISTER
        .endm
        .macro  cfi_all_in_entry
        cfi_register_in_entry
        .cfi_escape 0x10, 30, 2, 0x83, RETURN_ADDRESS           // return address: at x19 + RETURN_ADDRESS
        .cfi_escape 0x0f, 3, 0x83, POSITION, 0x06               // frame: the word at x19 + POSITION
        .cfi_escape 0x16, 31, 2, 0x8f, 0                        // sp: as it is
        .endm
        .macro  cfi_on_stack
        .cfi_def_cfa sp, 0
        .cfi_restore x30
        .cfi_restore sp
        .endm

        .macro  real_send register
        adrp    \register, :got:orig_objc_msgSend
        ldr     \register, [\register, :got_lo12:orig_objc_msgSend]
        ldr     \register, [\register]
        .endm

        // Notes the send. Goes on with its entry in x19 and everything else as it was, or to `unnoted` with
        // the arguments still pushed.
        .macro  note_send tail, unnoted
        push_arguments
        mov     x2, x30
        .if     \tail
        ldr     x3, [x19, #POSITION]    // of the send whose method ended with this one
        sub     x3, x3, #1
        .else
        add     x3, sp, #(ARGUMENT_FRAME + FIRST_POSITION)
        .endif
        bl      dtp_begin_send
        .cfi_remember_state
        cbz     x0, \unnoted
        str     x19, [x0, #SAVED_REGISTER]
        mov     x19, x0
        cfi_register_in_entry
        pop_arguments
        .endm

        .text
        .globl  hook_objc_msgSend
        .type   hook_objc_msgSend, %function
        .balign 64
hook_objc_msgSend:
        .cfi_startproc
        .cfi_personality 0x9b, DW.ref.__gxx_personality_v0
        .cfi_lsda 0x1b, .Lsites
        hint    #34                     // bti c
        adr     x9, .Lreturned
        cmp     x9, x30
        .cfi_remember_state
        b.eq    .Ltail
        note_send 0, .Lunnoted

.Lsend: real_send x16
        cfi_all_in_entry
.Lcall: blr     x16
.Lreturned:
        ldr     x30, [x19, #RETURN_ADDRESS]
        cfi_on_stack
#define RESULT_FRAME 64
        stp     x29, x30, [sp, #-RESULT_FRAME]!
        .cfi_def_cfa_offset RESULT_FRAME
        .cfi_offset x29, -RESULT_FRAME
        .cfi_offset x30, 8 - RESULT_FRAME
        mov     x29, sp
        stp     x0, x1, [sp, #16]       // results
        str     x8, [sp, #32]
        ldr     x9, [x19, #SAVED_REGISTER]      // the entry may be another send's once it was given back
        str     x9, [sp, #40]
        .cfi_offset x19, 40 - RESULT_FRAME
        mrs     x9, tpidr_el0
        adrp    x10, :gottprel:dtp_own_stack
        ldr     x10, [x10, :gottprel_lo12:dtp_own_stack]
        ldr     x0, [x9, x10]
        ldr     x9, [x0, #TOP]
        cmp     x9, x19
        .cfi_remember_state
        b.ne    .Lbelow
.Lend:  mov     x1, x19
        bl      dtp_end_send
        str     x0, [sp, #8]
.Lback: ldr     x19, [sp, #40]
        .cfi_restore x19
        ldr     x8, [sp, #32]
        ldp     x0, x1, [sp, #16]
        ldp     x29, x30, [sp], #RESULT_FRAME
        .cfi_restore x29
        .cfi_restore x30
        .cfi_def_cfa_offset 0
        ret

        // It is not the innermost send, or this is not its thread.
.Lbelow:
        .cfi_restore_state
        mov     x0, x19
        bl      dtp_return_below
        cbnz    x0, .Lend
        b       .Lback

        // An exception passes, and is in x0; the rest is as at .Lreturned. Goes on from a frame with the same
        // canonical address.
.Lpassing:
        .cfi_restore x29
        cfi_all_in_entry
        ldr     x30, [x19, #RETURN_ADDRESS]
        cfi_on_stack
        stp     x29, x30, [sp, #-RESULT_FRAME]!
        .cfi_def_cfa_offset RESULT_FRAME
        .cfi_offset x29, -RESULT_FRAME
        .cfi_offset x30, 8 - RESULT_FRAME
        mov     x29, sp
        ldr     x9, [x19, #POSITION]
        stp     x0, x9, [sp, #16]
        ldr     x9, [x19, #SAVED_REGISTER]
        str     x9, [sp, #40]
        .cfi_offset x19, 40 - RESULT_FRAME
        mov     x0, x19
        bl      dtp_return_below        // as a rule it is the innermost
        cbz     x0, 1f
        mov     x1, x19
        bl      dtp_end_send
1:      ldr     x19, [sp, #40]
        .cfi_restore x19
        ldr     x0, [sp, #16]
        .cfi_escape 0x10, 29, 2, 0x8f, 0                        // x29: at sp
        .cfi_escape 0x10, 30, 2, 0x8f, 8                        // return address: at sp + 8
        .cfi_escape 0x0f, 3, 0x8f, 24, 0x06                     // frame: the word at sp + 24
        .cfi_escape 0x16, 31, 3, 0x8f, 0xc0, 0x00               // sp: RESULT_FRAME more
.Lresume:
        bl      _Unwind_Resume
.Lresumed:
        brk     #0

        // For this send there was no memory.
.Lunnoted:
        .cfi_restore_state
        pop_arguments
.Lstraight:
        real_send x16
        br      x16

        // A method that was sent through here ends with this send in place of its return: the return point is
        // ours, and x19 the first one's entry. After seven of these in a row there are no positions left.
.Ltail: .cfi_restore_state
        ldr     x9, [x19, #POSITION]
        and     x9, x9, #POSITION_BITS
        cmp     x9, #1
        b.eq    .Lstraight
        note_send 1, .Lunnoted_tail
        b       .Lsend
.Lunnoted_tail:
        .cfi_restore_state
        pop_arguments
        b       .Lstraight
        .cfi_endproc
        .size   hook_objc_msgSend, . - hook_objc_msgSend

        .section .data.rel.ro.local, "aw", %progbits
        .balign 8
        .globl  dtp_return_point
        .hidden dtp_return_point
        .type   dtp_return_point, %object
        .size   dtp_return_point, 8
dtp_return_point:
        .xword  .Lreturned

        // What the personality routine is to do when an exception passes.
        .section .gcc_except_table, "a", %progbits
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
        .section .data.rel.local.DW.ref.__gxx_personality_v0, "awG", %progbits, DW.ref.__gxx_personality_v0, comdat
        .balign 8
        .type   DW.ref.__gxx_personality_v0, %object
        .size   DW.ref.__gxx_personality_v0, 8
DW.ref.__gxx_personality_v0:
        .xword  __gxx_personality_v0

#endif

        .section .note.GNU-stack, "", %progbits
