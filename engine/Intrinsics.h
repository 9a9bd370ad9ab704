#pragma once

// GCC 12's AVX-512 headers build some vectors from a deliberately undefined value, which its
// uninitialised-use warnings then report inside the header (GCC bug 105593). Clang has no
// -Wmaybe-uninitialized and rejects the pragma under -Werror.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#else
#include <immintrin.h>
#endif
