#pragma once

#include <string>
#include <utility>
#include <vector>

#include "CDialog.h"

class CEdit;
class CListBox;

// Chooses a file to open or a name to save under: the folder's path (typed, or followed from the
// list), the folder's subfolders and the files of the kinds asked for, and a name. A double click
// or Return opens a folder or takes a file; a typed name may be a path of its own, absolute,
// from "~/", or relative to the folder shown. Hidden files are not listed.
class CFileDialog : public CDialog {
public:
    // path: a file or folder to start from. extensions: the files listed ("wav", any case); every
    // file when empty.
    CFileDialog(bool open, const std::string& path, std::vector<std::string> extensions,
                CWnd* parent = nullptr);
    const std::string& GetPathName() const { return m_path; }

    BOOL OnInitDialog() override;
    void OnOK() override;

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnSelChange();
    void OnOpenRow();
    void OnUp();

private:
    static DialogTemplate Layout(bool open);
    void Show(const std::string& folder);
    void Take(const std::string& path); // the answer
    void Say(const std::string& problem);
    CEdit* Field(int id) const;
    CListBox* List() const;
    std::string Resolve(const std::string& typed) const;

    bool m_bOpen;
    std::string m_start, m_folder, m_path;
    std::vector<std::string> m_ext;
    std::vector<std::pair<std::string, bool>> m_rows; // name, is a folder
};
