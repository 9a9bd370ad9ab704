#pragma once

#include <mutex>

// A lock in the manner of the classic desktop frameworks: Lock() and Unlock(), usable with
// std::lock_guard. One thread may not take it twice.
class CCriticalSection {
public:
    void Lock() { m_mutex.lock(); }
    void Unlock() { m_mutex.unlock(); }
    // std::lock_guard spelling
    void lock() { Lock(); }
    void unlock() { Unlock(); }

private:
    std::mutex m_mutex;
};
