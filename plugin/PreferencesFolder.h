#pragma once

// The user's preferences folder with a trailing "/": $XDG_CONFIG_HOME, or ~/.config when that
// is unset or empty; empty when neither can be found. Looked up once per process.
extern char szGlobalMyApplicationDataPathName[2048];
void GetMy_SHFOLDER_PathName();

// Creates the folder (and its parents) when missing; false when it cannot be made.
bool MakeFolder(const char* path);
