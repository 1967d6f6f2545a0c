/* The C half of a library of somebody else that has names of the platform. */
int other_c_calls = 0;

unsigned GetTickCount(void) {
    ++other_c_calls;
    return 1;
}

int CloseHandle(void* handle) {
    ++other_c_calls;
    return handle == &other_c_calls ? 2 : -1;
}

/* Calls both as a library calls its own. */
unsigned other_c_sum(void) {
    return GetTickCount() + (unsigned)CloseHandle(&other_c_calls);
}
