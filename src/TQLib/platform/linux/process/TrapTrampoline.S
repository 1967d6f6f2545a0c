// Entered, as if by a jump of the faulting instruction, with the stack pointer at the registers of the interrupted code
// in the layout of CONTEXT (StructuredExceptions.h). To the unwinder this is the frame of a signal: it finds every
// register of the interrupted code there and looks its program counter up as it stands, not as a return address.
    .section .note.GNU-stack,"",%progbits
    .text
    .p2align 4
    .globl TQTrapTrampoline
    .hidden TQTrapTrampoline
    .type TQTrapTrampoline,%function
TQTrapTrampoline:
    .cfi_startproc
    .cfi_signal_frame
#if defined(__x86_64__)
    .cfi_def_cfa rsp, 0
    .cfi_offset rax, 0
    .cfi_offset rcx, 8
    .cfi_offset rdx, 16
    .cfi_offset rbx, 24
    .cfi_offset rsp, 32
    .cfi_offset rbp, 40
    .cfi_offset rsi, 48
    .cfi_offset rdi, 56
    .cfi_offset r8, 64
    .cfi_offset r9, 72
    .cfi_offset r10, 80
    .cfi_offset r11, 88
    .cfi_offset r12, 96
    .cfi_offset r13, 104
    .cfi_offset r14, 112
    .cfi_offset r15, 120
    .cfi_offset rip, 128
    movq %rsp, %rdi
    call TQCallTranslator
    ud2
#elif defined(__aarch64__)
    // Column 96 holds the program counter; column 30, the link register, has a value of its own in interrupted code.
    .cfi_return_column 96
    .cfi_def_cfa sp, 0
    .irp register, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30
    .cfi_offset \register, \register * 8
    .endr
    .cfi_offset sp, 248
    .cfi_offset 96, 256
    mov x0, sp
    bl TQCallTranslator
    brk #1
#endif
    .cfi_endproc
    .size TQTrapTrampoline,.-TQTrapTrampoline
