#pragma once

#include <cstddef>

#include "WinDefs.h"

class CDC;
struct _cairo_surface;

// A picture in memory, 32 bits a pixel: made blank for a device context, or loaded from PNG
// bytes, a PNG file, or by resource number (see CResources).
class CBitmap {
public:
    CBitmap() = default;
    virtual ~CBitmap();
    CBitmap(const CBitmap&) = delete;
    CBitmap& operator=(const CBitmap&) = delete;

    // An opaque picture of the given size, black.
    BOOL CreateCompatibleBitmap(CDC* dc, int width, int height);
    // An opaque picture from 0x00RRGGBB pixels, row by row (a screen grab).
    BOOL CreateFromPixels(int width, int height, const uint32_t* pixels);
    BOOL LoadPNG(const void* data, size_t size);
    BOOL LoadPNGFile(const char* path);
    // Picture number id ("%d.png"): from the skin folder beside the plug-in when it has it, else
    // from the pictures built into the plug-in. A missing one is reported and leaves the bitmap
    // empty; drawing with an empty bitmap draws nothing.
    BOOL LoadBitmap(UINT id);
    void DeleteObject();

    int GetWidth() const;
    int GetHeight() const;
    bool IsEmpty() const { return !m_pSurface; }
    // The pixel at (x, y) as 0xAARRGGBB; 0 outside.
    uint32_t GetPixel(int x, int y) const;
    BOOL WritePNG(const char* path) const;
    _cairo_surface* Surface() const { return m_pSurface; }

private:
    BOOL Adopt(_cairo_surface* surface);
    _cairo_surface* m_pSurface = nullptr;
};
