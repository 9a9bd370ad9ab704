#pragma once

#include <cstdint>
#include <cstring>

// One program as hosts store it inside their projects: raw memory, native byte order, 48 bytes.
struct AMorvaneProgram {
    float fValue[5];  // the five host values in parameter order
    char szName[24];  // as the user entered it (Shift-JIS bytes), NUL-terminated
    int32_t nCurrent; // current program index; meaningful in a bank's first record only

    AMorvaneProgram();
};
static_assert(sizeof(AMorvaneProgram) == 48);
