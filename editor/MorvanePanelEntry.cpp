// The panel library's entry point: Morvane.so loads Morvane.panel and calls it for the editor
// of one effect.
#include <cstddef>

#include "AMorvane.h"
#include "CMorvaneEditor.h"
#include "CWinApp.h"

// The window layer's application object for this library.
[[maybe_unused]] static CWinApp CInMorvane;

// The editor attached to effect, which owns it from then on; null for an effect of another build.
extern "C" __attribute__((visibility("default"))) AEffEditor*
MorvanePanelCreate(AMorvane* effect, size_t effectSize) {
    if (!effect || effectSize != sizeof(AMorvane))
        return nullptr;
    return new CMorvaneEditor(effect);
}
