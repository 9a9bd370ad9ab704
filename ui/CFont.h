#pragma once

#include <string>

struct _cairo_font_face;

// A font by face name and size. Faces resolve through fontconfig with Japanese as the language,
// so "Osaka" (a face Linux does not have) gives an installed sans-serif with Japanese glyphs.
class CFont {
public:
    static constexpr int kLogPixels = 96; // pixels per inch of the layer's device contexts

    CFont() = default;
    ~CFont();
    CFont(const CFont&) = delete;
    CFont& operator=(const CFont&) = delete;

    // pointSize in tenths of a point, as the framework's CreatePointFont takes it.
    bool CreatePointFont(int pointSize, const char* faceName, void* dc = nullptr);
    bool CreatePixelFont(double pixels, const char* faceName, bool bold = false);
    void DeleteObject();

    double PixelSize() const { return m_dPixels; }
    _cairo_font_face* Face() const { return m_pFace; }
    // The family fontconfig chose, for tests and diagnostics.
    const std::string& ResolvedFamily() const { return m_strFamily; }
    bool HasGlyph(unsigned codePoint) const;

private:
    _cairo_font_face* m_pFace = nullptr;
    void* m_pPattern = nullptr; // the matched pattern
    double m_dPixels = 0;
    std::string m_strFamily;
};
