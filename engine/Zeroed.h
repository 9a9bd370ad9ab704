#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

// An array of n zeroed elements of a trivial type whose memory is touched only where it is used.
// A large one is mapped straight from the system: its pages read as zero until written and cost
// nothing until then, wherever the heap stands (calloc clears memory the heap reuses, page by
// page), and Clear hands the written pages back rather than writing zeros over them. A small one
// comes from calloc. Reads as a plain pointer.
template <class T> class Zeroed {
public:
    Zeroed() = default;
    explicit Zeroed(size_t n) : m_n(n) {
        if (Bytes() >= kMapFrom) {
            void* p =
                mmap(nullptr, Bytes(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            m_p = p == MAP_FAILED ? nullptr : static_cast<T*>(p);
        } else {
            m_p = static_cast<T*>(std::calloc(n ? n : 1, sizeof(T)));
        }
        if (m_p == nullptr)
            throw std::bad_alloc();
    }
    ~Zeroed() { Free(); }
    Zeroed(Zeroed&& other) noexcept
        : m_p(std::exchange(other.m_p, nullptr)), m_n(std::exchange(other.m_n, 0)) {}
    Zeroed& operator=(Zeroed&& other) noexcept {
        if (this != &other) {
            Free();
            m_p = std::exchange(other.m_p, nullptr);
            m_n = std::exchange(other.m_n, 0);
        }
        return *this;
    }

    operator T*() const { return m_p; }
    T* get() const { return m_p; }
    size_t size() const { return m_n; }

    // Every element zero again.
    void Clear() {
        if (m_p == nullptr)
            return;
        if (Bytes() < kMapFrom || madvise(m_p, Bytes(), MADV_DONTNEED) != 0)
            std::memset(static_cast<void*>(m_p), 0, Bytes());
    }

    // From this size on the array is mapped, so it starts on a page.
    static constexpr size_t kMapFrom = 16384;

private:
    size_t Bytes() const { return m_n * sizeof(T); }
    void Free() {
        if (m_p != nullptr && Bytes() >= kMapFrom)
            munmap(m_p, Bytes());
        else
            std::free(m_p);
        m_p = nullptr;
    }

    T* m_p = nullptr;
    size_t m_n = 0;
};
