#pragma once

#include <cstddef>

#include "CString.h"
#include "WinDefs.h"

// One resource built into the binary (pictures "5000.png", dialog templates "5040.dlg").
struct ResourceEntry {
    const char* name;
    const unsigned char* data;
    size_t size;
};

// The plug-in's resources: those built into the binary at build time, so that installing the one
// plug-in file is enough, and a skin folder beside the plug-in ("Morvane.skin") whose PNGs, when
// present, take precedence, so the panel can be re-skinned without rebuilding.
class CResources {
public:
    static constexpr const char* kBundleIdentifier = "org.morvane.Morvane";
    static constexpr const char* kSkinFolderName = "Morvane.skin";

    // Adds a table of resources (RegisterBuiltInResources uses this).
    static void Register(const ResourceEntry* entries, size_t count);
    static const void* Find(UINT id, size_t* size); // "%d.png"
    static const void* FindNamed(const char* name, size_t* size);

    // The folder that holds this binary, with a trailing '/'.
    static CString ModuleDirectory();
    // The skin folder (beside the binary unless set), with a trailing '/'.
    static CString SkinFolder();
    static void SetSkinFolder(const char* folder);
    // Picture id in the skin folder ("%d.png", or "bmp%05d.png" as getResourcePath names it);
    // empty when the folder has neither.
    static CString SkinPath(UINT id);
    // The size of picture id, read from its PNG header without decoding it (from where LoadBitmap
    // would take it); false when there is no such picture.
    static bool PictureSize(UINT id, int* width, int* height);
};

// The path of picture id ("bmp%05d.png") in the bundle with this identifier, or an empty string
// when the bundle is unknown or has no such picture.
CString getResourcePath(int id, const char* bundleIdentifier);

// Registers the resources built into this binary (once; later calls do nothing). Defined by the
// generated resource source that the binary links.
void RegisterBuiltInResources();
