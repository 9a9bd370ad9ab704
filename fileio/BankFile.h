#pragma once

#include <cstdint>

#include "CFile.h"

// An opaque-chunk VST bank ("FBCh"): a 160-byte big-endian header and the chunk as it is. The
// byte size field is written as 0, as this plug-in has always done.
bool WriteChunkBank(CFile& file, uint32_t uniqueId, uint32_t numPrograms, const void* chunk,
                    uint32_t chunkSize);
