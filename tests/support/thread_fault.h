// Test seam: the test binary is linked with --wrap=pthread_create, so every thread the library
// starts goes through here and a test can make the creation of one worker fail.
#ifndef LDC_TESTS_SUPPORT_THREAD_FAULT_H
#define LDC_TESTS_SUPPORT_THREAD_FAULT_H

// From now on the creation with this 0-based number fails (EAGAIN) once; -1 disarms.
void FailThreadCreateAt(int iCall);

// RAII form for a test body.
struct ScopedThreadCreateFailure {
    explicit ScopedThreadCreateFailure(int iCall) { FailThreadCreateAt(iCall); }
    ~ScopedThreadCreateFailure() { FailThreadCreateAt(-1); }
};

#endif
