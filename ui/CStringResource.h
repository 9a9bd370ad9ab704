#pragma once

// Localised texts by resource number, chosen once from the user's locale (LC_ALL, LC_MESSAGES,
// LANG): Japanese for "ja", otherwise English. Returns "" for an unknown number.
const char* LoadStringResource(int id);

// Shows a modal message with no title and the default button (the window layer's message box).
// With no window of the plug-in open on this thread, the text goes to standard error, one line.
void MorvaneMessageBox(const char* text);
