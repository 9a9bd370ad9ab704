#include "CPresetSaveDlg.h"

#include <cstdio>
#include <cstring>

#include "AMorvane.h"
#include "CSjis.h"

BEGIN_MESSAGE_MAP(CPresetSaveDlg, CDialog)
ON_CBN_SELCHANGE(kProgramList, OnSelPGMCombo)
END_MESSAGE_MAP()

CPresetSaveDlg::CPresetSaveDlg(CWnd* parent, AMorvane* effect)
    : CDialog(IDD, parent), m_pEffect(effect) {}

void CPresetSaveDlg::DoDataExchange(CDataExchange* dx) {
    DDX_Control(dx, kProgramList, m_ctlProgram);
}

CString CPresetSaveDlg::NameOf(int program) const {
    char sjis[kVstMaxProgNameLen + 1] = {};
    m_pEffect->getProgramNameIndexed(0, program, sjis);
    return CheckSJISAndToUFT8(sjis);
}

BOOL CPresetSaveDlg::OnInitDialog() {
    for (int i = 0; i < AMorvane::kNumPrograms; ++i) {
        CString entry;
        entry.Format("%d:%s", i + 1, static_cast<const char*>(NameOf(i)));
        m_ctlProgram.AddString(entry);
    }
    const int current = m_pEffect->getProgram();
    m_ctlProgram.SetCurSel(current);
    GetDlgItem(kNameField)->SetWindowText(NameOf(current));
    return TRUE;
}

void CPresetSaveDlg::OnSelPGMCombo() {
    // the chosen program's name replaces what was typed
    GetDlgItem(kNameField)->SetWindowText(NameOf(m_ctlProgram.GetCurSel()));
}

void CPresetSaveDlg::CutName(const char* sjis, char out[24]) {
    std::memset(out, 0, 24);
    std::strncpy(out, sjis, 23);
    // Only byte 22 is looked at: a character that starts there would be split by the cut.
    if (std::strlen(sjis) > 22 && IsDBCSLeadByte(static_cast<unsigned char>(out[22])))
        out[22] = 0;
}

void CPresetSaveDlg::OnOK() {
    m_nSelected = m_ctlProgram.GetCurSel();
    CString utf8;
    GetDlgItem(kNameField)->GetWindowText(utf8);
    char sjis[256];
    UTF8ToSJSINS(utf8, sjis, sizeof(sjis));
    CutName(sjis, m_szName);
    CDialog::OnOK();
}
