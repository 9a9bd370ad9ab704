#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "CFont.h"
#include "CWnd.h"

class CDialog;

// A dialog's layout: its title and size and its controls, in pixels. Templates are kept as data
// among the resources ("%d.dlg") and read with Parse:
//   DIALOG <id> "<title>" <width> <height>
//   FONT <points> "<face>"
//   LTEXT|EDITTEXT|COMBOBOX|LISTBOX|PUSHBUTTON|DEFPUSHBUTTON <id> ["<text>"] <x> <y> <width>
//   <height>
struct DialogTemplate {
    struct Control {
        std::string kind;
        int id = -1;
        std::string text;
        CRect rect;
    };
    std::string title;
    int width = 0, height = 0;
    int fontPoints = 9;
    std::string fontFace = "sans-serif";
    std::vector<Control> controls;
    // False, with a reason, for a template that cannot be read.
    bool Parse(const std::string& text, std::string* error = nullptr);
};

// Binds a dialog's member controls to the template's control ids.
class CDataExchange {
public:
    bool m_bSaveAndValidate = false;
    std::vector<std::pair<int, CWnd*>> m_bound;
};
void DDX_Control(CDataExchange* dx, int id, CWnd& control);

// A modal dialog built from a template: DoModal shows it over the window the user is working in,
// runs until EndDialog, and returns the result (IDOK, IDCANCEL). Return presses the default button,
// Escape cancels, Tab moves between controls.
class CDialog : public CWnd {
public:
    explicit CDialog(UINT templateId, CWnd* parent = nullptr);
    CDialog(DialogTemplate layout, CWnd* parent);
    ~CDialog() override;

    virtual intptr_t DoModal();
    void EndDialog(int result);
    virtual BOOL OnInitDialog() { return TRUE; }
    virtual void OnOK() { EndDialog(IDOK); }
    virtual void OnCancel() { EndDialog(IDCANCEL); }
    bool WantsKeys() const override { return true; }
    BOOL PreTranslateMessage(MSG* msg) override;

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    virtual void DoDataExchange(CDataExchange*) {}
    void OnPaint();
    void OnClose() { OnCancel(); }
    void OnOKCommand() { OnOK(); }
    void OnCancelCommand() { OnCancel(); }
    CFont m_font;

private:
    bool BuildControls();
    void FocusNext(int direction);
    UINT m_nTemplate;
    CWnd* m_pOwner;
    DialogTemplate m_layout;
    bool m_bHaveLayout = false;
    std::vector<std::unique_ptr<CWnd>> m_owned;
    std::vector<CWnd*> m_tabOrder;
};
