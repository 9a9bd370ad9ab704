#include "CDialog.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <chrono>
#include <cstdio>
#include <sstream>

#include "CButton.h"
#include "CComboBox.h"
#include "CDC.h"
#include "CEdit.h"
#include "CListBox.h"
#include "CResources.h"
#include "CStatic.h"
#include "CXConnection.h"

namespace {

constexpr COLORREF kFace = RGB(236, 237, 239);
const CBrush kFaceBrush{kFace, false};

// A quoted string or a bare word.
bool Token(std::istringstream& in, std::string& out) {
    in >> std::ws;
    if (in.peek() == '"') {
        in.get();
        return static_cast<bool>(std::getline(in, out, '"'));
    }
    return static_cast<bool>(in >> out);
}

} // namespace

bool DialogTemplate::Parse(const std::string& text, std::string* error) {
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    auto fail = [&](const char* why) {
        if (error)
            *error = "line " + std::to_string(number) + ": " + why;
        return false;
    };
    bool haveDialog = false;
    while (std::getline(lines, line)) {
        ++number;
        std::istringstream in(line);
        std::string kind;
        if (!(in >> kind) || kind[0] == '#')
            continue;
        if (kind == "DIALOG") {
            int id = 0;
            if (!(in >> id) || !Token(in, title) || !(in >> width >> height) || width <= 0 ||
                height <= 0)
                return fail("DIALOG <id> \"title\" <width> <height>");
            haveDialog = true;
        } else if (kind == "FONT") {
            if (!(in >> fontPoints) || !Token(in, fontFace))
                return fail("FONT <points> \"face\"");
        } else if (kind == "LTEXT" || kind == "EDITTEXT" || kind == "COMBOBOX" ||
                   kind == "LISTBOX" || kind == "PUSHBUTTON" || kind == "DEFPUSHBUTTON") {
            Control c;
            c.kind = kind;
            if (!(in >> c.id))
                return fail("control id");
            if (kind == "LTEXT" || kind == "PUSHBUTTON" || kind == "DEFPUSHBUTTON")
                if (!Token(in, c.text))
                    return fail("control text");
            int x, y, w, h;
            if (!(in >> x >> y >> w >> h) || w <= 0 || h <= 0)
                return fail("control rectangle");
            c.rect = CRect(x, y, x + w, y + h);
            controls.push_back(c);
        } else {
            return fail("unknown line");
        }
    }
    if (!haveDialog)
        return fail("no DIALOG line");
    return true;
}

void DDX_Control(CDataExchange* dx, int id, CWnd& control) {
    dx->m_bound.emplace_back(id, &control);
}

BEGIN_MESSAGE_MAP(CDialog, CWnd)
ON_WM_PAINT()
ON_WM_CLOSE()
ON_COMMAND(IDOK, OnOKCommand)
ON_COMMAND(IDCANCEL, OnCancelCommand)
END_MESSAGE_MAP()

CDialog::CDialog(UINT templateId, CWnd* parent) : m_nTemplate(templateId), m_pOwner(parent) {}

CDialog::CDialog(DialogTemplate layout, CWnd* parent)
    : m_nTemplate(0), m_pOwner(parent), m_layout(std::move(layout)), m_bHaveLayout(true) {}

CDialog::~CDialog() {
    if (m_hWnd)
        DestroyWindow();
}

void CDialog::EndDialog(int result) {
    EndModalLoop(result);
}

bool CDialog::BuildControls() {
    CDataExchange dx;
    DoDataExchange(&dx);
    for (const DialogTemplate::Control& c : m_layout.controls) {
        CWnd* bound = nullptr;
        for (auto& [id, w] : dx.m_bound)
            if (id == c.id)
                bound = w;
        const DWORD style = WS_CHILD | WS_VISIBLE;
        CWnd* made = nullptr;
        auto make = [&](auto* fresh) -> decltype(fresh) {
            using T = std::remove_pointer_t<decltype(fresh)>;
            if (auto* b = dynamic_cast<T*>(bound))
                return b;
            m_owned.emplace_back(fresh = new T);
            return fresh;
        };
        const UINT id = static_cast<UINT>(c.id) & 0xFFFF;
        if (c.kind == "LTEXT") {
            auto* s = make(static_cast<CStatic*>(nullptr));
            s->Create(c.text.c_str(), style, c.rect, this, id);
            made = s;
        } else if (c.kind == "EDITTEXT") {
            auto* e = make(static_cast<CEdit*>(nullptr));
            e->Create(style | WS_TABSTOP, c.rect, this, id);
            made = e;
        } else if (c.kind == "LISTBOX") {
            auto* l = make(static_cast<CListBox*>(nullptr));
            l->Create(style | WS_TABSTOP, c.rect, this, id);
            made = l;
        } else if (c.kind == "COMBOBOX") {
            auto* b = make(static_cast<CComboBox*>(nullptr));
            b->Create(style | WS_TABSTOP | CBS_DROPDOWNLIST, c.rect, this, id);
            made = b;
        } else {
            auto* b = make(static_cast<CButton*>(nullptr));
            b->Create(c.text.c_str(),
                      style | WS_TABSTOP | (c.kind == "DEFPUSHBUTTON" ? BS_DEFPUSHBUTTON : 0),
                      c.rect, this, id);
            made = b;
        }
        if (!made->m_hWnd)
            return false;
        made->SetFont(&m_font, FALSE);
        if (made->GetStyle() & WS_TABSTOP)
            m_tabOrder.push_back(made);
    }
    return true;
}

intptr_t CDialog::DoModal() {
    if (!m_bHaveLayout) {
        char name[32];
        std::snprintf(name, sizeof(name), "%u.dlg", m_nTemplate);
        size_t size = 0;
        const void* data = CResources::FindNamed(name, &size);
        std::string error;
        if (!data || !m_layout.Parse(std::string(static_cast<const char*>(data), size), &error)) {
            std::fprintf(stderr, "Morvane: dialog %u cannot be built %s\n", m_nTemplate,
                         error.c_str());
            return -1;
        }
        m_bHaveLayout = true;
    }
    // placed over the window the user is working in, and kept above it
    CXConnection* current = CXConnection::Current();
    if (!m_pOwner && current)
        m_pOwner = current->Focus() ? current->Focus() : current->LastInputWindow();
    if (m_pOwner)
        m_pConn = m_pOwner->Connection()->shared_from_this();
    else if (!(m_pConn = CXConnection::ForThisThread()))
        return -1;
    Display* d = m_pConn->Display();
    int x = (DisplayWidth(d, m_pConn->Screen()) - m_layout.width) / 2;
    int y = (DisplayHeight(d, m_pConn->Screen()) - m_layout.height) / 3;
    HWND transientFor = 0;
    if (m_pOwner && m_pOwner->m_hWnd) {
        transientFor = m_pOwner->GetTopLevelHwnd();
        XWindowAttributes a;
        Window child = 0;
        int ox = 0, oy = 0;
        if (XGetWindowAttributes(d, transientFor, &a) &&
            XTranslateCoordinates(d, transientFor, a.root, 0, 0, &ox, &oy, &child)) {
            x = ox + (a.width - m_layout.width) / 2;
            y = oy + (a.height - m_layout.height) / 3;
        }
    }
    m_font.CreatePointFont(m_layout.fontPoints * 10, m_layout.fontFace.c_str());
    const unsigned long savedFocus = m_pConn->SaveFocus();
    const char* cls = AfxRegisterWndClass(0, IDC_ARROW, &kFaceBrush);
    if (!CreateEx(0, cls, m_layout.title.c_str(),
                  WS_POPUP | WS_CAPTION | WS_SYSMENU | DS_MODALFRAME,
                  CRect(x, y, x + m_layout.width, y + m_layout.height), nullptr, 0))
        return -1;
    if (transientFor)
        XSetTransientForHint(d, m_hWnd, transientFor);
    const ::Atom dialogType = m_pConn->Atom("_NET_WM_WINDOW_TYPE_DIALOG");
    XChangeProperty(d, m_hWnd, m_pConn->Atom("_NET_WM_WINDOW_TYPE"), XA_ATOM, 32, PropModeReplace,
                    reinterpret_cast<const unsigned char*>(&dialogType), 1);
    SelectKeys(true);
    if (!BuildControls()) {
        DestroyWindow();
        return -1;
    }
    OnInitDialog();
    ShowWindow(SW_SHOW);
    // focus can go to a window only once it is on screen, which the window manager decides
    auto conn = m_pConn;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    conn->RunLoop([&] {
        XWindowAttributes a;
        return m_hWnd && XGetWindowAttributes(d, m_hWnd, &a) && a.map_state != IsViewable &&
               std::chrono::steady_clock::now() < until;
    });
    // the control OnInitDialog focused, or the first one; now that the window can take it
    CWnd* focus = CWnd::GetFocus();
    if (focus && focus->GetParent() == this) {
        conn->SetFocusWnd(nullptr);
        focus->SetFocus();
    } else if (m_hWnd && !m_tabOrder.empty()) {
        m_tabOrder.front()->SetFocus();
    }
    const int result = m_hWnd ? RunModalLoop() : IDCANCEL;
    if (m_hWnd) {
        conn->RestoreFocus(savedFocus); // before the dialog goes, or focus falls to the root
        DestroyWindow();
    }
    m_owned.clear();
    m_tabOrder.clear();
    return result;
}

void CDialog::FocusNext(int direction) {
    if (m_tabOrder.empty())
        return;
    int at = -1;
    for (size_t i = 0; i < m_tabOrder.size(); ++i)
        if (m_tabOrder[i] == CWnd::GetFocus())
            at = static_cast<int>(i);
    const int n = static_cast<int>(m_tabOrder.size());
    const int next = ((at < 0 ? (direction > 0 ? -1 : 0) : at) + direction + n) % n;
    m_tabOrder[static_cast<size_t>(next)]->SetFocus();
}

BOOL CDialog::PreTranslateMessage(MSG* msg) {
    if (msg->message != WM_KEYDOWN)
        return FALSE;
    switch (msg->wParam) {
    case kKeyReturn:
    case kKeyEnter: {
        // a focused button answers for itself; otherwise the default button
        if (auto* b = dynamic_cast<CButton*>(CWnd::GetFocus())) {
            b->Click();
        } else {
            for (CWnd* w : m_tabOrder)
                if (auto* def = dynamic_cast<CButton*>(w);
                    def && (def->GetStyle() & BS_DEFPUSHBUTTON))
                    return def->Click(), TRUE;
            OnOK();
        }
        return TRUE;
    }
    case kKeyEscape:
        OnCancel();
        return TRUE;
    case kKeyTab:
        FocusNext(GetKeyState(VK_SHIFT) < 0 ? -1 : 1);
        return TRUE;
    default:
        return FALSE;
    }
}

void CDialog::OnPaint() {
    CPaintDC dc(this);
    CRect c;
    GetClientRect(&c);
    dc.FillSolidRect(c, kFace);
}
