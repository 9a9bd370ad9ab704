#pragma once

// Localised texts by resource number, chosen once from the user's locale (LC_ALL, LC_MESSAGES,
// LANG): Japanese for "ja", otherwise English. Returns "" for an unknown number.
const char* LoadStringResource(int id);
