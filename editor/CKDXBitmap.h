#pragma once

#include "CBitmap.h"

// A panel picture by resource number: from the plug-in's skin folder when it has one, else
// built into the plug-in.
class CKDXBitmap : public CBitmap {
public:
    BOOL LoadResourceBitmap(UINT id) { return LoadBitmap(id); }
    int Width() const { return GetWidth(); }
    int Height() const { return GetHeight(); }
};
