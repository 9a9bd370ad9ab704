#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

// n zeroed elements of a trivial type from calloc, released with std::free. Fresh pages come
// zeroed from the system, so the parts of a large buffer that are never reached cost nothing,
// where new T[n]() would write every page at once.
template <class T> T* Zeroed(size_t n) {
    auto* p = static_cast<T*>(std::calloc(n, sizeof(T)));
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}
