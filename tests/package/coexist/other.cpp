// The C++ half of a library of somebody else that has names of the platform.
int other_calls = 0;

unsigned GetTickCount() {
    ++other_calls;
    return 3;
}

int CloseHandle(void* handle) {
    ++other_calls;
    return handle == &other_calls ? 4 : -1;
}

// Calls both as a library calls its own.
unsigned other_sum() {
    return GetTickCount() + static_cast<unsigned>(CloseHandle(&other_calls));
}
