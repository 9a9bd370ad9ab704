#include "CBitmap.h"

#include <cairo.h>

#include <cstdio>
#include <cstring>

#include "CResources.h"

namespace {

struct Reader {
    const unsigned char* p;
    size_t left;
};

cairo_status_t ReadPng(void* closure, unsigned char* data, unsigned int length) {
    auto* r = static_cast<Reader*>(closure);
    if (length > r->left)
        return CAIRO_STATUS_READ_ERROR;
    std::memcpy(data, r->p, length);
    r->p += length;
    r->left -= length;
    return CAIRO_STATUS_SUCCESS;
}

} // namespace

CBitmap::~CBitmap() {
    DeleteObject();
}

void CBitmap::DeleteObject() {
    if (m_pSurface)
        cairo_surface_destroy(m_pSurface);
    m_pSurface = nullptr;
}

BOOL CBitmap::Adopt(cairo_surface_t* surface) {
    if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
        cairo_surface_destroy(surface);
        return FALSE;
    }
    DeleteObject();
    m_pSurface = surface;
    return TRUE;
}

BOOL CBitmap::CreateCompatibleBitmap(CDC*, int width, int height) {
    if (width <= 0 || height <= 0 || width > 16384 || height > 16384)
        return FALSE;
    return Adopt(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height));
}

BOOL CBitmap::CreateFromPixels(int width, int height, const uint32_t* pixels) {
    if (!pixels || !CreateCompatibleBitmap(nullptr, width, height))
        return FALSE;
    cairo_surface_flush(m_pSurface);
    unsigned char* data = cairo_image_surface_get_data(m_pSurface);
    const int stride = cairo_image_surface_get_stride(m_pSurface);
    for (int y = 0; y < height; ++y)
        std::memcpy(data + y * stride, pixels + static_cast<size_t>(y) * width,
                    4 * static_cast<size_t>(width));
    cairo_surface_mark_dirty(m_pSurface);
    return TRUE;
}

BOOL CBitmap::LoadPNG(const void* data, size_t size) {
    Reader r{static_cast<const unsigned char*>(data), size};
    return data && Adopt(cairo_image_surface_create_from_png_stream(ReadPng, &r));
}

BOOL CBitmap::LoadPNGFile(const char* path) {
    return path && Adopt(cairo_image_surface_create_from_png(path));
}

BOOL CBitmap::LoadBitmap(UINT id) {
    const CString path = CResources::SkinPath(id);
    if (!path.IsEmpty() && LoadPNGFile(path))
        return TRUE;
    size_t size = 0;
    if (const void* data = CResources::Find(id, &size); data && LoadPNG(data, size))
        return TRUE;
    std::fprintf(stderr, "Can't load bitmap %d;G\n", static_cast<int>(id));
    return FALSE;
}

int CBitmap::GetWidth() const {
    return m_pSurface ? cairo_image_surface_get_width(m_pSurface) : 0;
}

int CBitmap::GetHeight() const {
    return m_pSurface ? cairo_image_surface_get_height(m_pSurface) : 0;
}

uint32_t CBitmap::GetPixel(int x, int y) const {
    if (!m_pSurface || x < 0 || y < 0 || x >= GetWidth() || y >= GetHeight())
        return 0;
    cairo_surface_flush(m_pSurface);
    const unsigned char* row =
        cairo_image_surface_get_data(m_pSurface) + y * cairo_image_surface_get_stride(m_pSurface);
    uint32_t v;
    std::memcpy(&v, row + 4 * x, 4);
    return cairo_image_surface_get_format(m_pSurface) == CAIRO_FORMAT_RGB24 ? (v | 0xFF000000u) : v;
}

BOOL CBitmap::WritePNG(const char* path) const {
    return m_pSurface && cairo_surface_write_to_png(m_pSurface, path) == CAIRO_STATUS_SUCCESS;
}
