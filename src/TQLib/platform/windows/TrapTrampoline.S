// Entered with rcx at the thread's ThreadTrap and the stack pointer below what the faulting code uses. It
// builds the frame of an interrupt, which also frees the faulting frame from having any particular alignment.
// The nop keeps the return address apart from anything the unwinder could take for the end of a function.
    .text
    .p2align 4
    .globl TQTrapTrampoline
    .def TQTrapTrampoline; .scl 2; .type 32; .endef
    .seh_proc TQTrapTrampoline
TQTrapTrampoline:
    pushq $0
    pushq 8(%rcx)
    pushq $0
    pushq $0
    pushq (%rcx)
    .seh_pushframe
    subq $40, %rsp
    .seh_stackalloc 40
    .seh_endprologue
    call TQCallTranslator
    nop
    ud2
    .seh_endproc
