#include "CFont.h"

#include <cairo-ft.h>
#include <cairo.h>
#include <fontconfig/fontconfig.h>

CFont::~CFont() {
    DeleteObject();
}

void CFont::DeleteObject() {
    if (m_pFace)
        cairo_font_face_destroy(m_pFace);
    if (m_pPattern)
        FcPatternDestroy(static_cast<FcPattern*>(m_pPattern));
    m_pFace = nullptr;
    m_pPattern = nullptr;
}

bool CFont::CreatePointFont(int pointSize, const char* faceName, void*) {
    return CreatePixelFont(pointSize / 10.0 * kLogPixels / 72.0, faceName);
}

bool CFont::CreatePixelFont(double pixels, const char* faceName, bool bold) {
    DeleteObject();
    FcPattern* want = FcPatternCreate();
    // The face asked for, then proportional Japanese faces (a panel's read-outs and names want
    // proportional figures, and "Osaka" is proportional), then whatever sans-serif there is.
    for (const char* family : {faceName ? faceName : "sans-serif", "VL PGothic", "IPAPGothic",
                               "Noto Sans CJK JP", "sans-serif"})
        FcPatternAddString(want, FC_FAMILY, reinterpret_cast<const FcChar8*>(family));
    // cairo's own face lookup cannot carry the language; without it a missing family falls to a
    // face without Japanese glyphs
    FcPatternAddString(want, FC_LANG, reinterpret_cast<const FcChar8*>("ja"));
    FcPatternAddDouble(want, FC_PIXEL_SIZE, pixels);
    if (bold)
        FcPatternAddInteger(want, FC_WEIGHT, FC_WEIGHT_BOLD);
    FcConfigSubstitute(nullptr, want, FcMatchPattern);
    FcDefaultSubstitute(want);
    FcResult result = FcResultNoMatch;
    FcPattern* match = FcFontMatch(nullptr, want, &result);
    FcPatternDestroy(want);
    if (!match)
        return false;
    FcChar8* family = nullptr;
    if (FcPatternGetString(match, FC_FAMILY, 0, &family) == FcResultMatch)
        m_strFamily = reinterpret_cast<const char*>(family);
    m_pPattern = match;
    m_pFace = cairo_ft_font_face_create_for_pattern(match);
    m_dPixels = pixels;
    return cairo_font_face_status(m_pFace) == CAIRO_STATUS_SUCCESS;
}

bool CFont::HasGlyph(unsigned codePoint) const {
    FcCharSet* set = nullptr;
    if (!m_pPattern || FcPatternGetCharSet(static_cast<FcPattern*>(m_pPattern), FC_CHARSET, 0,
                                           &set) != FcResultMatch)
        return false;
    return FcCharSetHasChar(set, codePoint);
}
