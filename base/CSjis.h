#pragma once

#include "CString.h"

// Program names are kept as Shift-JIS bytes (Windows' code page 932, which keeps 0x5C a backslash
// and has the NEC and IBM extensions); windows show UTF-8.

// Shift-JIS to UTF-8. Bytes that are not Shift-JIS come out as U+FFFD, never as a failure.
CString CheckSJISAndToUFT8(const char* sjis);
// UTF-8 to Shift-JIS into out (at least 24 bytes: size counts the terminator). Characters with no
// Shift-JIS form become '?'; the result is cut at a whole character. Returns the bytes written.
int UTF8ToSJSINS(const char* utf8, char* out, int size);
bool IsDBCSLeadByte(unsigned char byte);
