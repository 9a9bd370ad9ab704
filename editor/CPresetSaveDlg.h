#pragma once

#include "CComboBox.h"
#include "CDialog.h"
#include "CString.h"

class AMorvane;

// Stores the current settings as one of the 64 programs: the user picks the slot from a list
// ("%d:%s", numbered from 1) and names it. Names are kept in Shift-JIS and shown in UTF-8; a name
// is cut to 23 bytes, never in the middle of a double-byte character at the cut.
class CPresetSaveDlg : public CDialog {
public:
    static constexpr UINT IDD = 5040;
    static constexpr int kProgramList = 1120, kNameField = 5000;

    CPresetSaveDlg(CWnd* parent, AMorvane* effect);
    // The name cut as it is stored: at most 23 bytes, and 22 when byte 22 starts a character.
    static void CutName(const char* sjis, char out[24]);

    CComboBox m_ctlProgram;
    int32_t m_nSelected = 0;
    char m_szName[24] = {};

protected:
    DECLARE_MESSAGE_MAP()
    void DoDataExchange(CDataExchange* dx) override;
    BOOL OnInitDialog() override;
    void OnSelPGMCombo();
    void OnOK() override;

private:
    CString NameOf(int program) const;
    AMorvane* m_pEffect;
};
