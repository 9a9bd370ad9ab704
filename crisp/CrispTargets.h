#pragma once

// How crisp's kernels are built once per instruction set: each body is inlined into one function
// per level, where the compiler vectorises it at that width.
#define CRISP_INLINE __attribute__((always_inline)) inline
// (only what CMorvaneIsa::Supported checks for the level: F and BW; GCC would keep to 256 bits)
#if defined(__clang__)
#define CRISP_AVX512 __attribute__((target("avx2,avx512f,avx512bw")))
#else
#define CRISP_AVX512 __attribute__((target("avx2,avx512f,avx512bw,prefer-vector-width=512")))
#endif
#define CRISP_AVX2 __attribute__((target("avx2")))
// A loop whose streams never overlap, though they are views of one array (for GCC, which would
// not vectorise it otherwise; Clang's pragma for it is an error wherever it cannot, as under
// sanitizers).
#if defined(__clang__)
#define CRISP_NO_OVERLAP
#else
#define CRISP_NO_OVERLAP _Pragma("GCC ivdep")
#endif
