#include "CFileDialog.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "CEdit.h"
#include "CListBox.h"

namespace fs = std::filesystem;

namespace {

enum : int { kIdFolder = 300, kIdList, kIdName, kIdUp, kIdProblem };

std::string Lower(std::string s) {
    for (char& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string Home() {
    const char* home = std::getenv("HOME");
    return home && *home ? home : "/";
}

} // namespace

BEGIN_MESSAGE_MAP(CFileDialog, CDialog)
ON_LBN_SELCHANGE(kIdList, OnSelChange)
ON_LBN_DBLCLK(kIdList, OnOpenRow)
ON_BN_CLICKED(kIdUp, OnUp)
END_MESSAGE_MAP()

DialogTemplate CFileDialog::Layout(bool open) {
    DialogTemplate t;
    t.title = open ? "Open a file" : "Save as";
    t.width = 480;
    t.height = 400;
    const auto add = [&](const char* kind, int id, const char* text, int x, int y, int w, int h) {
        t.controls.push_back({kind, id, text, CRect(x, y, x + w, y + h)});
    };
    add("LTEXT", -1, "Folder", 12, 14, 56, 20);
    add("EDITTEXT", kIdFolder, "", 70, 12, 398, 24);
    add("LISTBOX", kIdList, "", 12, 46, 456, 252);
    add("LTEXT", kIdProblem, "", 70, 302, 398, 20);
    add("LTEXT", -1, "Name", 12, 328, 56, 20);
    add("EDITTEXT", kIdName, "", 70, 326, 398, 24);
    add("PUSHBUTTON", kIdUp, "Up a folder", 12, 362, 100, 26);
    add("PUSHBUTTON", IDCANCEL, "Cancel", 292, 362, 84, 26);
    add("DEFPUSHBUTTON", IDOK, open ? "Open" : "Save", 384, 362, 84, 26);
    return t;
}

CFileDialog::CFileDialog(bool open, const std::string& path, std::vector<std::string> extensions,
                         CWnd* parent)
    : CDialog(Layout(open), parent), m_bOpen(open), m_start(path) {
    for (const std::string& e : extensions) {
        std::string dotted(1, '.'); // not "." + temporary: GCC 12's -O3 restrict false alarm
        dotted += Lower(e);
        m_ext.push_back(dotted);
    }
}

CEdit* CFileDialog::Field(int id) const {
    return dynamic_cast<CEdit*>(GetDlgItem(id));
}
CListBox* CFileDialog::List() const {
    return dynamic_cast<CListBox*>(GetDlgItem(kIdList));
}

BOOL CFileDialog::OnInitDialog() {
    std::error_code ec;
    const fs::path start = m_start.empty() ? fs::path(Home()) : fs::path(m_start);
    std::string name;
    if (fs::is_directory(start, ec)) {
        Show(start.string());
    } else {
        name = start.filename().string();
        Show(start.has_parent_path() && fs::is_directory(start.parent_path(), ec)
                 ? start.parent_path().string()
                 : fs::current_path(ec).string());
    }
    Field(kIdName)->SetWindowText(name.c_str());
    for (size_t i = 0; i < m_rows.size(); ++i)
        if (!m_rows[i].second && m_rows[i].first == name)
            List()->SetCurSel(static_cast<int>(i));
    Field(kIdName)->SetFocus();
    Field(kIdName)->SetSel(0, -1);
    return TRUE;
}

void CFileDialog::Show(const std::string& folder) {
    std::error_code ec;
    fs::path f = fs::weakly_canonical(folder, ec);
    if (ec || !fs::is_directory(f, ec)) {
        Say("There is no folder " + folder + ".");
        return;
    }
    std::vector<std::string> folders, files;
    for (fs::directory_iterator it(f, fs::directory_options::skip_permission_denied, ec), end;
         !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (name.empty() || name[0] == '.')
            continue;
        std::error_code kind;
        if (it->is_directory(kind))
            folders.push_back(name);
        else if (m_ext.empty() || std::find(m_ext.begin(), m_ext.end(),
                                            Lower(it->path().extension().string())) != m_ext.end())
            files.push_back(name);
    }
    const auto byName = [](const std::string& a, const std::string& b) {
        return Lower(a) < Lower(b);
    };
    std::sort(folders.begin(), folders.end(), byName);
    std::sort(files.begin(), files.end(), byName);
    m_folder = f.string();
    m_rows.clear();
    if (f.has_parent_path() && f != f.root_path())
        m_rows.emplace_back("..", true);
    for (const std::string& d : folders)
        m_rows.emplace_back(d, true);
    for (const std::string& n : files)
        m_rows.emplace_back(n, false);
    CListBox* list = List();
    list->ResetContent();
    for (const auto& [name, isFolder] : m_rows)
        list->AddString((name + (isFolder ? "/" : "")).c_str());
    Field(kIdFolder)->SetWindowText(m_folder.c_str());
    Say("");
}

void CFileDialog::Say(const std::string& problem) {
    if (CWnd* line = GetDlgItem(kIdProblem))
        line->SetWindowText(problem.empty() ? "" : ("\xE2\x9A\xA0 " + problem).c_str());
}

std::string CFileDialog::Resolve(const std::string& typed) const {
    if (typed.rfind("~/", 0) == 0 || typed == "~")
        return Home() + typed.substr(1);
    if (!typed.empty() && typed[0] == '/')
        return typed;
    return (fs::path(m_folder) / typed).string();
}

void CFileDialog::Take(const std::string& path) {
    m_path = path;
    EndDialog(IDOK);
}

void CFileDialog::OnSelChange() {
    const int row = List()->GetCurSel();
    if (row >= 0 && !m_rows[static_cast<size_t>(row)].second)
        Field(kIdName)->SetWindowText(m_rows[static_cast<size_t>(row)].first.c_str());
}

void CFileDialog::OnOpenRow() {
    const int row = List()->GetCurSel();
    if (row < 0)
        return;
    const auto& [name, isFolder] = m_rows[static_cast<size_t>(row)];
    if (name == "..")
        OnUp();
    else if (isFolder)
        Show((fs::path(m_folder) / name).string());
    else
        Take((fs::path(m_folder) / name).string());
}

void CFileDialog::OnUp() {
    Show(fs::path(m_folder).parent_path().string());
}

void CFileDialog::OnOK() {
    CWnd* focus = GetFocus();
    if (focus == List()) {
        OnOpenRow();
        return;
    }
    if (focus == Field(kIdFolder)) {
        CString typed;
        Field(kIdFolder)->GetWindowText(typed);
        Show(Resolve(static_cast<const char*>(typed)));
        return;
    }
    CString typedName;
    Field(kIdName)->GetWindowText(typedName);
    const std::string typed = static_cast<const char*>(typedName);
    if (typed.empty()) {
        OnOpenRow(); // a folder chosen in the list
        return;
    }
    const std::string path = Resolve(typed);
    std::error_code ec;
    if (fs::is_directory(path, ec)) {
        Show(path);
        Field(kIdName)->SetWindowText("");
    } else if (m_bOpen && !fs::is_regular_file(path, ec)) {
        Say("There is no file " + typed + " here.");
    } else if (!m_bOpen && !fs::is_directory(fs::path(path).parent_path(), ec)) {
        Say("There is no folder for " + typed + ".");
    } else {
        Take(path);
    }
}
