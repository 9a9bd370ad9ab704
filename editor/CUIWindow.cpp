#include "CUIWindow.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "AMorvane.h"
#include "CDC.h"
#include "CMenu.h"
#include "CMorvaneEditor.h"
#include "CPresetSaveDlg.h"
#include "CSjis.h"
#include "MorvaneParameters.h"
#include "ParamRange.h"

using namespace MorvaneParameters;

namespace {

constexpr COLORREF kReadOutInk = 0x484848;
const CRect kSaveButton(160, 10, 203, 26);
constexpr float kFloor = -38.0f, kCeiling = 6.0f;

// 6 dB per doubling, held to the meter's range; silence is the floor.
float MeterDb(float linear) {
    if (!(linear > 0))
        return kFloor;
    return std::clamp(static_cast<float>(GainToDb(linear)), kFloor, kCeiling);
}

} // namespace

BEGIN_MESSAGE_MAP(CUIWindow, CWnd)
ON_WM_CREATE()
ON_WM_PAINT()
ON_WM_SIZE()
ON_WM_DESTROY()
ON_WM_LBUTTONDOWN()
ON_WM_LBUTTONDBLCLK()
ON_WM_MOUSEMOVE()
ON_WM_LBUTTONUP()
ON_MESSAGE(kMsgInputReturn, OnInputValReturn)
ON_MESSAGE(kMsgUpdateControl, OnUpdateControlPosted)
ON_MESSAGE(kMsgUpdateModify, OnUpdateModifyPosted)
ON_COMMAND_RANGE(kCmdCopyFirst, kCmdCopyLast, OnSelCopyPg)
END_MESSAGE_MAP()

AMorvane* CUIWindow::Effect() const {
    return static_cast<AMorvane*>(m_pEditor->getEffect());
}

BOOL CUIWindow::MakeWindow(CWnd* parent, CKDXBitmap* background, CMorvaneEditor* editor) {
    const char* cls = AfxRegisterWndClass(CS_DBLCLKS, LoadCursor(nullptr, IDC_ARROW),
                                          GetStockObject(HOLLOW_BRUSH));
    m_pFrame = parent;
    m_pBackground = background;
    m_pEditor = editor;
    m_editorThread = std::this_thread::get_id();
    m_fontDisp.CreatePointFont(90, "Osaka");
    m_fontEdit.CreatePointFont(120, "Osaka");
    return CreateEx(0, cls, "UIWindow", WS_CHILD | WS_VISIBLE,
                    CRect(0, 0, background->Width(), background->Height()), parent, 0);
}

int CUIWindow::OnCreate(LPCREATESTRUCT cs) {
    if (CWnd::OnCreate(cs) == -1)
        return -1;
    struct {
        CKDXBitmap& bmp;
        UINT id;
    } pictures[] = {{m_bmp5001, 5001},     {m_bmpOnOffOff, 5003}, {m_bmpOnOffOn, 5002},
                    {m_bmpClip, 5006},     {m_bmpTrack, 5007},    {m_bmpKnob, 5008},
                    {m_bmpOutTrack, 5009}, {m_bmpOutKnob, 5010},  {m_bmpMeter, 5011},
                    {m_bmpCopyOff, 5013},  {m_bmpCopyOn, 5012},   {m_bmpSave, 5014},
                    {m_bmpLamp, 5015},     {m_bmpLowOn, 5004},    {m_bmpLowOff, 5005}};
    for (auto& p : pictures)
        p.bmp.LoadResourceBitmap(p.id);
    m_rcModify.SetRect(106, 10, 149, 26);
    m_rcPitch.SetRect(168, 186, 216, 200);
    m_rcTime.SetRect(250, 186, 298, 200);
    m_rcOutput.SetRect(404, 186, 438, 200);
    AMorvane* effect = Effect();

    // sliders: the knob's centre from (1, track height - knob height / 2) at the bottom to
    // (1, knob height / 2) at the top; each repaints its read-out as it moves
    auto slider = [&](CKDXBitmapSliderDC& s, CRect hit, CRect& readOut, CKDXBitmap& track,
                      CKDXBitmap& knob, float min, float max, unsigned id, bool log) {
        s.Make(hit, readOut, this, &track, nullptr, &knob, min, max,
               CPoint(1, track.Height() - knob.Height() / 2), CPoint(1, knob.Height() / 2), id, 1,
               log, false, false, false, &CUIWindow::ControlCallback, this);
    };
    float outMin = 0, outMax = 1;
    slider(m_sldPitch, CRect(184, 47, 200, 178), m_rcPitch, m_bmpTrack, m_bmpKnob, kCentsMin,
           kCentsMax, kPitchSlider, false);
    m_sldPitch.SetValue(effect->getParameterDisplayVal(kPitch), nullptr, false);
    slider(m_sldTime, CRect(266, 47, 282, 178), m_rcTime, m_bmpTrack, m_bmpKnob, kPercentMin,
           kPercentMax, kTimeSlider, false);
    m_sldTime.SetValue(effect->getParameterDisplayVal(kTime), nullptr, false);
    slider(m_sldOutput, CRect(403, 45, 419, 178), m_rcOutput, m_bmpOutTrack, m_bmpOutKnob, outMin,
           outMax, kOutputSlider, true);
    m_sldOutput.SetValue(effect->getParameter(kOutput), nullptr, false);

    CRect empty;
    CRect onOff(23, 7, 52, 27), low(99, 118, 113, 130), copy(64, 10, 89, 27);
    m_swOnOff.Make(onOff, this, &m_bmpOnOffOff, &m_bmpOnOffOn, kOnOffSwitch, empty, false, nullptr,
                   &CUIWindow::ControlCallback, this);
    m_swOnOff.SetValue(static_cast<int>(effect->getParameter(kOnOff)), false);
    m_swLowSound.Make(low, this, &m_bmpLowOff, &m_bmpLowOn, kLowSoundSwitch, empty, false, nullptr,
                      &CUIWindow::ControlCallback, this);
    m_swLowSound.SetValue(static_cast<int>(effect->getParameter(kLowSound)), false);
    m_swCopy.Make(copy, this, &m_bmpCopyOff, &m_bmpCopyOn, kCopySwitch, empty, false, nullptr,
                  &CUIWindow::ControlCallback, this);

    m_editWnd.MakeWindow(this, this, "", 0, 6, &m_fontEdit, true);
    m_editWnd.ShowWindow(SW_HIDE);
    m_nPendingEdit = -1;
    m_bClip = false;
    std::fill(std::begin(m_fVU), std::end(m_fVU), kFloor);
    m_nLastCount = 0xFFFF;
    return 0;
}

void CUIWindow::OnSize(UINT type, int cx, int cy) {
    CWnd::OnSize(type, cx, cy);
    Invalidate();
}

void CUIWindow::OnPaint() {
    CPaintDC dc(this);
    m_bPainted = true;
    CRect client;
    GetClientRect(&client);
    CBitmap canvas;
    canvas.CreateCompatibleBitmap(&dc, client.Width(), client.Height());
    CDC mem, pic;
    mem.CreateCompatibleDC(&dc);
    mem.SelectObject(&canvas);
    pic.CreateCompatibleDC(&dc);
    pic.SelectObject(m_pBackground);
    mem.BitBlt(0, 0, client.Width(), client.Height(), &pic, 0, 0, SRCCOPY);
    mem.SetBkMode(TRANSPARENT);
    mem.SetTextColor(kReadOutInk);
    mem.SelectObject(&m_fontDisp);
    DrawDisp(&mem, 2, m_rcPitch);
    DrawDisp(&mem, 3, m_rcTime);
    DrawDisp(&mem, 1, m_rcOutput);
    DrawVU(&mem);
    pic.SelectObject(&m_bmpSave);
    mem.BitBlt(160, 10, 43, 16, &pic, 0, 0, SRCCOPY);
    pic.SelectObject(&m_bmpLamp);
    mem.BitBlt(106, 10, 43, 16, &pic, 0, Effect()->IsProgramChanged() ? m_bmpLamp.Height() / 2 : 0,
               SRCCOPY);
    dc.BitBlt(0, 0, client.Width(), client.Height(), &mem, 0, 0, SRCCOPY);
    m_sldPitch.DrawSlider(&dc);
    m_sldTime.DrawSlider(&dc);
    m_sldOutput.DrawSlider(&dc);
    m_swOnOff.DrawSwitch(&dc);
    m_swLowSound.DrawSwitch(&dc);
    m_swCopy.DrawSwitch(&dc);
}

void CUIWindow::DrawDisp(CDC* dc, int index, const CRect& rect) {
    char text[kVstMaxParamStrLen + 1] = {};
    Effect()->getParameterDisplay(index, text);
    const CSize size = dc->GetTextExtent(text);
    dc->ExtTextOut(rect.left + (rect.Width() - size.cx) / 2,
                   rect.top + (rect.Height() - size.cy) / 2 + 2, ETO_CLIPPED, &rect, text,
                   static_cast<UINT>(std::strlen(text)));
}

void CUIWindow::DrawVU(CDC* dc) {
    const int half = m_bmpMeter.Width() / 2, height = m_bmpMeter.Height();
    CBitmap scratch;
    if (!scratch.CreateCompatibleBitmap(dc, std::max(half, 1), std::max(height, 1)))
        return;
    CDC bar, pic;
    bar.CreateCompatibleDC(dc);
    bar.SelectObject(&scratch);
    pic.CreateCompatibleDC(dc);
    pic.SelectObject(&m_bmpMeter);
    const int xs[2] = {422, 431};
    for (int b = 0; b < 2; ++b) {
        bar.BitBlt(0, 0, half, height, &pic, 0, 0, SRCCOPY);
        // 3 rows a dB: +6 dB at row 1, -38 dB at row 133
        const int y = static_cast<int>(m_fVU[2 + b] * -3.0 + 19.0);
        bar.BitBlt(0, y, half, height - y, &pic, half, y, SRCCOPY);
        dc->BitBlt(xs[b], 45, half, height, &bar, 0, 0, SRCCOPY);
    }
}

void CUIWindow::DrawClip(CDC* dc) {
    CDC pic;
    pic.CreateCompatibleDC(dc);
    pic.SelectObject(&m_bmpClip);
    dc->BitBlt(31, 44, 47, 8, &pic, 0, m_bClip * 8, SRCCOPY);
}

void CUIWindow::idle() {
    PumpMessages(); // the host's idle call is when the panel's events are handled
    if (!m_hWnd)
        return;
    AMorvane* effect = Effect();
    float before[4];
    std::copy(std::begin(m_fVU), std::end(m_fVU), before);
    const uint16_t count = effect->ProcessCount();
    if (count != m_nLastCount) {
        m_nLastCount = count;
        float v[4];
        effect->GetVU(&v[0], &v[1], &v[2], &v[3]);
        for (int i = 0; i < 4; ++i)
            m_fVU[i] = MeterDb(v[i]);
    } else {
        // no new meter data: fall 0.25 dB a call, the whole of the ballistics
        for (float& level : m_fVU)
            level = std::max(kFloor, level - 0.25f);
    }
    if (!std::equal(std::begin(m_fVU), std::end(m_fVU), before)) {
        CClientDC dc(this);
        DrawVU(&dc);
    }
}

bool CUIWindow::ControlCallback(int id, float value, void* user, int flag) {
    static_cast<CUIWindow*>(user)->ChangeControl(id, value, flag);
    return true;
}

void CUIWindow::ChangeControl(int id, float value, int flag) {
    AMorvane* effect = Effect();
    switch (id) {
    case kPitchSlider:
        effect->setParameterFormUI(kPitch, value, flag);
        break;
    case kTimeSlider:
        effect->setParameterFormUI(kTime, value, flag);
        break;
    case kLowSoundSwitch:
        effect->setParameterFormUI(kLowSound, value, 0);
        break;
    case kOutputSlider:
        effect->setParameterFormUI(kOutput, value, 0);
        break;
    case kOnOffSwitch:
        effect->setParameterFormUI(kOnOff, value, 0);
        if (GetKeyState(VK_SHIFT) < 0)
            effect->ProgramToFactory();
        else if (GetKeyState(VK_CONTROL) < 0)
            effect->ProgramToAllFactory();
        break;
    default:
        break;
    }
    InvalidateRect(&m_rcModify);
}

void CUIWindow::OnLButtonDown(UINT, CPoint point) {
    if (m_editWnd.IsWindowVisible())
        m_editWnd.ShowWindow(SW_HIDE);
    m_nPendingEdit = -1;
    m_editWnd.Edit().SetFloatPoint(1);
    AMorvane* effect = Effect();
    CClientDC dc(this);
    if (m_rcPitch.PtInRect(point)) {
        ShowEdit(static_cast<int>(effect->getParameterDisplayVal(kPitch) * 10), -12000, 12000, true,
                 6, m_rcPitch, kPitchEdit);
    } else if (m_rcTime.PtInRect(point)) {
        m_editWnd.Edit().SetFloatPoint(2);
        // the editor's range stops at 150.00; the value check on return allows 200: kept so
        ShowEdit(static_cast<int>(effect->getParameterDisplayVal(kTime) * 100), 5000, 15000, false,
                 6, m_rcTime, kTimeEdit);
    } else if (m_rcOutput.PtInRect(point)) {
        float min = 0, max = 0;
        GetParamMinMax(kOutput, &min, &max);
        ShowEdit(static_cast<int>(effect->getParameterDisplayVal(kOutput) * 10),
                 static_cast<int>(min * 10), static_cast<int>(max * 10), true, 4, m_rcOutput,
                 kOutputEdit);
    } else if (m_sldTime.PtInSwitch(point)) {
        m_sldTime.SetValueByPoint(point, 1);
        m_sldTime.DrawSlider(&dc);
    } else if (m_sldPitch.PtInSwitch(point)) {
        m_sldPitch.SetValueByPoint(point, 1);
        m_sldPitch.DrawSlider(&dc);
    } else if (m_sldOutput.PtInSwitch(point)) {
        m_sldOutput.SetValueByPoint(point, 1);
        m_sldOutput.DrawSlider(&dc);
    } else if (m_swOnOff.PtInSwitch(point)) {
        m_swOnOff.SetValue(!m_swOnOff.GetValue(), true);
        m_swOnOff.DrawSwitch(&dc);
    } else if (m_swLowSound.PtInSwitch(point)) {
        m_swLowSound.SetValue(!m_swLowSound.GetValue(), true);
        m_swLowSound.DrawSwitch(&dc);
    } else if (m_swCopy.PtInSwitch(point)) {
        CopyMenu();
    }
}

void CUIWindow::CopyMenu() {
    {
        CClientDC dc(this);
        if (m_swCopy.IsEnabled() && !(m_swCopy.IsStayOn() && m_swCopy.GetValue())) {
            m_swCopy.SetValue(!m_swCopy.GetValue(), false);
            m_swCopy.DrawSwitch(&dc);
        }
    }
    AMorvane* effect = Effect();
    CMenu menu;
    menu.CreatePopupMenu();
    menu.SetFont(&m_fontDisp);
    for (int i = 0; i < AMorvane::kNumPrograms; ++i) {
        char sjis[kVstMaxProgNameLen + 1] = {};
        effect->getProgramNameIndexed(0, i, sjis);
        const UINT flags =
            i == effect->getProgram() ? MF_CHECKED | MF_DISABLED | MF_GRAYED : MF_STRING;
        menu.AppendMenu(flags, kCmdCopyFirst + static_cast<UINT>(i), CheckSJISAndToUFT8(sjis));
    }
    menu.TrackPopupMenu(TPM_RIGHTBUTTON, 89, 13, this);
    if (!m_hWnd)
        return; // closed while the menu was open
    if (m_swCopy.IsEnabled() && !m_swCopy.IsStayOn() && m_swCopy.GetValue())
        m_swCopy.SetValue(0, false);
    CClientDC dc(this);
    m_swCopy.DrawSwitch(&dc);
}

void CUIWindow::OnSelCopyPg(UINT command) {
    Effect()->CopyPgFrom(static_cast<int>(command - kCmdCopyFirst));
    InvalidateRect(&m_rcModify);
}

void CUIWindow::OnMouseMove(UINT flags, CPoint point) {
    CWnd::OnMouseMove(flags, point);
    CClientDC dc(this);
    if (m_sldPitch.IsDragging())
        m_sldPitch.OnMouseMove(point, &dc);
    else if (m_sldTime.IsDragging())
        m_sldTime.OnMouseMove(point, &dc);
    else if (m_sldOutput.IsDragging())
        m_sldOutput.OnMouseMove(point, &dc);
}

void CUIWindow::OnLButtonUp(UINT, CPoint point) {
    CClientDC dc(this);
    for (CKDXBitmapSliderDC* s : {&m_sldPitch, &m_sldTime, &m_sldOutput}) {
        if (s->IsDragging()) {
            s->OnLButtonUp(point, &dc);
            return;
        }
    }
    // The save button and the lamp act on release, wherever the press was.
    if (kSaveButton.PtInRect(point)) {
        CPresetSaveDlg dlg(nullptr, Effect());
        if (dlg.DoModal() == IDOK)
            Effect()->SaveProgram(dlg.m_nSelected, dlg.m_szName);
    } else if (m_rcModify.PtInRect(point)) {
        Effect()->ProgramToInitial();
    }
}

void CUIWindow::ShowEdit(int value, int min, int max, bool signFlag, int width, CRect rect,
                         int id) {
    m_editWnd.SetNewValue(value, min, max);
    m_editWnd.SetSingnFlag(signFlag);
    m_editWnd.ChangeSize(width, signFlag);
    m_editWnd.SetWindowPos(nullptr, rect.left + 1, rect.top, 0, 0, SWP_NOSIZE | SWP_NOZORDER);
    m_editWnd.Edit().SetSel(0, -1);
    m_editWnd.ShowWindow(SW_SHOW);
    m_editWnd.Edit().SetFocus();
    m_nPendingEdit = id;
}

void CUIWindow::HideEdit() {
    m_nPendingEdit = -1;
    if (m_editWnd.IsWindowVisible())
        m_editWnd.ShowWindow(SW_HIDE);
}

LRESULT CUIWindow::OnInputValReturn(WPARAM, LPARAM) {
    char text[51] = {};
    m_editWnd.Edit().GetWindowText(text, sizeof(text));
    const int n = std::atoi(text);
    float v = static_cast<float>(n / 10.0);
    AMorvane* effect = Effect();
    switch (m_nPendingEdit) {
    case kOutputEdit: {
        v += n >= 0 ? 0.005f : -0.005f;
        float min = 0, max = 0;
        GetParamMinMax(kOutput, &min, &max);
        effect->setParameterFromDiaplay(kOutput, std::clamp(v, min, max));
        break;
    }
    case kTimeEdit:
        effect->setParameterFromDiaplay(kTime, std::clamp(static_cast<float>(n / 100.0),
                                                          static_cast<float>(kPercentMin),
                                                          static_cast<float>(kPercentMax)));
        break;
    case kPitchEdit:
        if (v < kCentsMin || v > kCentsMax)
            v = kCentsMax; // below the range too: deliberate, and kept
        effect->setParameterFromDiaplay(kPitch, v);
        break;
    default:
        break;
    }
    m_nPendingEdit = -1;
    InvalidateRect(&m_rcModify);
    Invalidate();
    SendMessage(WM_PAINT);
    return 0;
}

void CUIWindow::UpdateControl(int index, float value) {
    if (!m_bPainted)
        return;
    if (!OnEditorThread()) {
        // Only the editor's thread draws on its connection: the change waits for its idle call.
        float v = value;
        uint32_t bits;
        std::memcpy(&bits, &v, sizeof(bits));
        PostMessage(kMsgUpdateControl, static_cast<WPARAM>(index), static_cast<LPARAM>(bits));
        return;
    }
    CClientDC dc(this);
    switch (index) {
    case kOnOff:
        if (m_swOnOff.IsEnabled()) {
            m_swOnOff.SetValue(static_cast<int>(value), false);
            m_swOnOff.DrawSwitch(&dc);
        }
        break;
    case kOutput:
        m_sldOutput.SetValue(value, &dc, false);
        break;
    case kPitch:
        m_sldPitch.SetValue(value, &dc, false);
        break;
    case kTime:
        m_sldTime.SetValue(value, &dc, false);
        break;
    case kLowSound:
        if (m_swLowSound.IsEnabled()) {
            m_swLowSound.SetValue(static_cast<int>(value), false);
            m_swLowSound.DrawSwitch(&dc);
        }
        break;
    default:
        break;
    }
    InvalidateRect(&m_rcModify);
}

LRESULT CUIWindow::OnUpdateControlPosted(WPARAM index, LPARAM value) {
    float v;
    const uint32_t bits = static_cast<uint32_t>(value);
    std::memcpy(&v, &bits, sizeof(v));
    UpdateControl(static_cast<int>(index), v);
    return 0;
}

void CUIWindow::UpdateModify() {
    if (!OnEditorThread()) {
        PostMessage(kMsgUpdateModify);
        return;
    }
    InvalidateRect(&m_rcModify);
}

LRESULT CUIWindow::OnUpdateModifyPosted(WPARAM, LPARAM) {
    UpdateModify();
    return 0;
}
