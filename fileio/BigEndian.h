#pragma once

#include <cstdint>

#include "CFile.h"

// Header fields of VST bank and program files: most significant byte first.
bool getDWordFile(CFile& file, uint32_t* value);
bool getWordFile(CFile& file, uint16_t* value);
bool putDWordFile(CFile& file, uint32_t value);
