// Large blocks for the library's working buffers, kept across fuzz inputs (see buffer_pool.cpp).
#ifndef LDC_FUZZ_BUFFER_POOL_H
#define LDC_FUZZ_BUFFER_POOL_H

// While one is alive, large blocks that this thread allocates come from the pool.
struct tagST_POOL_SCOPE {
    tagST_POOL_SCOPE();
    ~tagST_POOL_SCOPE();
};

#endif
