#pragma once

#include <algorithm>
#include <string>

// A text string in the manner of the classic desktop frameworks. Holds bytes as given (program
// names stay Shift-JIS); conversions for display belong to the drawing layer.
class CString {
public:
    CString() = default;
    CString(const char* text) : m_s(text ? text : "") {}
    CString(const char* text, int length)
        : m_s(text ? std::string(text, static_cast<size_t>(length)) : "") {}

    int GetLength() const { return static_cast<int>(m_s.size()); }
    bool IsEmpty() const { return m_s.empty(); }
    operator const char*() const { return m_s.c_str(); }
    char GetAt(int i) const { return m_s[static_cast<size_t>(i)]; }

    CString& operator+=(const char* text) {
        m_s += text ? text : "";
        return *this;
    }
    friend CString operator+(CString a, const char* b) { return a += b; }

    // Index of the last occurrence of c, or -1.
    int ReverseFind(char c) const {
        const size_t i = m_s.rfind(c);
        return i == std::string::npos ? -1 : static_cast<int>(i);
    }
    CString Left(int count) const {
        return CString(m_s.c_str(), std::clamp(count, 0, GetLength()));
    }
    bool operator==(const char* text) const { return m_s == (text ? text : ""); }

    // printf-style formatting; the result replaces the contents.
    void Format(const char* format, ...) __attribute__((format(printf, 2, 3)));

private:
    std::string m_s;
};
