#include "CString.h"

#include <cstdarg>
#include <cstdio>

void CString::Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (n < 0) {
        m_s.clear();
    } else {
        m_s.assign(static_cast<size_t>(n) + 1, '\0');
        std::vsnprintf(m_s.data(), m_s.size(), format, args);
        m_s.resize(static_cast<size_t>(n));
    }
    va_end(args);
}
