#pragma once

#include "WinDefs.h"

// A modal message with an OK button and no title, over the window the user is working in. With
// no window of ours open on this thread (no display, a command-line host, a test), the text goes
// to standard error as one line instead. Returns IDOK.
int AfxMessageBox(const char* text, UINT type = MB_OK);
// The text of string resource id.
int AfxMessageBox(UINT idString, UINT type = MB_OK);
