// Test seam: the test binary is linked with --wrap=malloc, so every malloc of the library comes
// through here and a test can make the allocation of one chosen size fail.
#ifndef LDC_TESTS_SUPPORT_MALLOC_FAULT_H
#define LDC_TESTS_SUPPORT_MALLOC_FAULT_H

#include <stddef.h>

// The next malloc of exactly uSize bytes returns NULL, once; 0 disarms.
void FailMallocOfSize(size_t uSize);

// RAII form for a test body.
struct ScopedMallocFailure {
    explicit ScopedMallocFailure(size_t uSize) { FailMallocOfSize(uSize); }
    ~ScopedMallocFailure() { FailMallocOfSize(0); }
};

#endif
