#pragma once

// How every bitmap control reports to its owner: the control's id, its new value, the owner's
// pointer and the gesture's phase (1 press, 255 drag, 0 release or a plain change). The return
// value is ignored.
using KDXCALLBACK = bool (*)(int id, float value, void* user, int flag);
