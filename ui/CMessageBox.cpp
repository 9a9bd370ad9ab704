#include "CMessageBox.h"

#include <cstdio>
#include <string>
#include <vector>

#include "CDC.h"
#include "CDialog.h"
#include "CStringResource.h"
#include "CXConnection.h"

namespace {

constexpr int kTextWidth = 340;
constexpr int kMargin = 20;

// Lines of at most kTextWidth pixels, broken at spaces (or anywhere, for text without them).
std::vector<std::string> Wrap(const std::string& text, CFont* font) {
    CDC dc;
    dc.SelectObject(font);
    std::vector<std::string> lines;
    std::string line;
    size_t i = 0;
    while (i < text.size()) {
        size_t next = i + 1;
        while (next < text.size() && (static_cast<unsigned char>(text[next]) & 0xC0) == 0x80)
            ++next;
        const std::string ch = text.substr(i, next - i);
        if (ch == "\n") {
            lines.push_back(line), line.clear();
        } else if (dc.GetTextExtent((line + ch).c_str()).cx > kTextWidth && !line.empty()) {
            const size_t space = line.rfind(' ');
            if (space != std::string::npos && ch != " ") {
                lines.push_back(line.substr(0, space));
                line = line.substr(space + 1) + ch;
            } else {
                lines.push_back(line);
                line = ch == " " ? "" : ch;
            }
        } else {
            line += ch;
        }
        i = next;
    }
    if (!line.empty())
        lines.push_back(line);
    return lines;
}

class CMessageBoxDlg : public CDialog {
public:
    CMessageBoxDlg(DialogTemplate layout, std::vector<std::string> lines, int lineHeight)
        : CDialog(std::move(layout), nullptr), m_lines(std::move(lines)),
          m_nLineHeight(lineHeight) {}

protected:
    DECLARE_MESSAGE_MAP()
    void OnPaint() {
        CPaintDC dc(this);
        CRect c;
        GetClientRect(&c);
        dc.FillSolidRect(c, RGB(236, 237, 239));
        // an information mark, then the text
        const CPoint ring[] = {{kMargin + 12, kMargin},
                               {kMargin + 24, kMargin + 12},
                               {kMargin + 12, kMargin + 24},
                               {kMargin, kMargin + 12}};
        dc.Polygon(ring, 4, RGB(58, 120, 214));
        dc.FillSolidRect(CRect(kMargin + 11, kMargin + 10, kMargin + 14, kMargin + 19),
                         RGB(255, 255, 255));
        dc.FillSolidRect(CRect(kMargin + 11, kMargin + 5, kMargin + 14, kMargin + 8),
                         RGB(255, 255, 255));
        dc.SelectObject(&m_font);
        dc.SetBkMode(TRANSPARENT);
        dc.SetTextColor(RGB(24, 24, 24));
        int y = kMargin + 2;
        for (const std::string& line : m_lines) {
            dc.TextOut(kMargin + 40, y, line.c_str());
            y += m_nLineHeight;
        }
    }

private:
    std::vector<std::string> m_lines;
    int m_nLineHeight;
};

BEGIN_MESSAGE_MAP(CMessageBoxDlg, CDialog)
ON_WM_PAINT()
END_MESSAGE_MAP()

} // namespace

int AfxMessageBox(const char* text, UINT) {
    const std::string message = text ? text : "";
    if (!CXConnection::Current()) {
        std::fprintf(stderr, "Morvane: %s\n", message.c_str());
        return IDOK;
    }
    CFont font;
    font.CreatePointFont(90, "sans-serif");
    const std::vector<std::string> lines = Wrap(message, &font);
    CDC dc;
    dc.SelectObject(&font);
    const int lineHeight = dc.GetTextExtent("Ag").cy + 3;
    DialogTemplate layout;
    layout.width = kMargin + 40 + kTextWidth + kMargin;
    const int textHeight = std::max(24, static_cast<int>(lines.size()) * lineHeight);
    layout.height = kMargin + textHeight + 16 + 28 + 14;
    layout.controls.push_back({"DEFPUSHBUTTON", IDOK, "OK",
                               CRect(layout.width - kMargin - 80, layout.height - 14 - 28,
                                     layout.width - kMargin, layout.height - 14)});
    CMessageBoxDlg box(layout, lines, lineHeight);
    if (box.DoModal() < 0)
        std::fprintf(stderr, "Morvane: %s\n", message.c_str());
    return IDOK;
}

int AfxMessageBox(UINT idString, UINT type) {
    return AfxMessageBox(LoadStringResource(static_cast<int>(idString)), type);
}
