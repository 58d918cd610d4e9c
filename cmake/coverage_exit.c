// Saves the coverage counters of a process before it ends in a way that would lose them.
// The linker turns calls of f into calls of __wrap_f, and __real_f into f.
void __gcov_dump(void);
_Noreturn void __real__exit(int status);
_Noreturn void __real__Exit(int status);
_Noreturn void __real_abort(void);

_Noreturn void __wrap__exit(int status) {
    __gcov_dump();
    __real__exit(status);
}

_Noreturn void __wrap__Exit(int status) {
    __gcov_dump();
    __real__Exit(status);
}

_Noreturn void __wrap_abort(void) {
    __gcov_dump();
    __real_abort();
}
