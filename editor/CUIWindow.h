#pragma once

#include <thread>

#include "CFont.h"
#include "CKDXBitmap.h"
#include "CKDXBitmapSliderDC.h"
#include "CKDXBitmapSwitch2DC.h"
#include "CKDXFloatEditWnd.h"
#include "CWnd.h"

class AMorvane;
class CDC;
class CMorvaneEditor;

// The panel: the background, three sliders (pitch, time, output), three switches (ON/OFF,
// LowSound, the copy menu), three read-outs that take typed values through a popup editor, a
// two-bar meter, the modified lamp and the save button. It has no timer: the host's idle call
// meters it. Changes made by the effect reach it through UpdateControl and UpdateModify.
class CUIWindow : public CWnd {
public:
    enum ControlID : unsigned {
        kPitchSlider = 100,
        kTimeSlider = 101,
        kLowSoundSwitch = 102,
        kOutputSlider = 103,
        kOnOffSwitch = 104,
        kCopySwitch = 126,
        kPitchEdit = 120,
        kTimeEdit = 121,
        kOutputEdit = 125,
    };
    // The COPY menu's commands: the first program's, then one a program (100 reserved).
    static constexpr UINT kCmdCopyFirst = 1010;
    static constexpr UINT kCmdCopyLast = kCmdCopyFirst + 100;
    static constexpr UINT kMsgInputReturn = 0x0A01;
    static constexpr UINT kMsgUpdateControl = WM_USER + 1; // from another thread
    static constexpr UINT kMsgUpdateModify = WM_USER + 2;

    BOOL MakeWindow(CWnd* parent, CKDXBitmap* background, CMorvaneEditor* editor);
    void UpdateControl(int index, float value);
    void UpdateModify();
    void idle();
    void ChangeControl(int id, float value, int flag);
    static bool ControlCallback(int id, float value, void* user, int flag);
    void ShowEdit(int value, int min, int max, bool signFlag, int width, CRect rect, int id);
    void HideEdit();
    void OnSelCopyPg(UINT command);
    // The meter levels in dB, for tests and the window title.
    float MeterLevel(int i) const { return m_fVU[i]; }

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    int OnCreate(LPCREATESTRUCT cs);
    void OnPaint();
    void OnSize(UINT type, int cx, int cy);
    void OnDestroy() {}
    void OnLButtonDown(UINT flags, CPoint point);
    void OnLButtonDblClk(UINT flags, CPoint point) { OnLButtonDown(flags, point); }
    void OnMouseMove(UINT flags, CPoint point);
    void OnLButtonUp(UINT flags, CPoint point);
    LRESULT OnInputValReturn(WPARAM, LPARAM);
    LRESULT OnUpdateControlPosted(WPARAM index, LPARAM value);
    LRESULT OnUpdateModifyPosted(WPARAM, LPARAM);

private:
    AMorvane* Effect() const;
    void DrawDisp(CDC* dc, int index, const CRect& rect);
    void DrawVU(CDC* dc);
    void DrawClip(CDC* dc);
    void CopyMenu();
    bool OnEditorThread() const { return std::this_thread::get_id() == m_editorThread; }

    bool m_bPainted = false;
    CKDXBitmap* m_pBackground = nullptr;
    CKDXBitmap m_bmp5001, m_bmpOnOffOff, m_bmpOnOffOn, m_bmpClip, m_bmpTrack, m_bmpKnob,
        m_bmpOutTrack, m_bmpOutKnob, m_bmpMeter, m_bmpCopyOff, m_bmpCopyOn, m_bmpSave, m_bmpLamp,
        m_bmpLowOn, m_bmpLowOff;
    CFont m_fontDisp, m_fontEdit;
    CWnd* m_pFrame = nullptr;
    CMorvaneEditor* m_pEditor = nullptr;
    CRect m_rcPitch, m_rcTime, m_rcOutput;
    CKDXBitmapSliderDC m_sldPitch, m_sldTime, m_sldOutput;
    CKDXBitmapSwitch2DC m_swOnOff, m_swLowSound, m_swCopy;
    CKDXFloatEditWnd m_editWnd;
    int m_nPendingEdit = -1;
    bool m_bClip = false;
    CRect m_rcModify{106, 10, 149, 26};
    float m_fVU[4] = {-38.0f, -38.0f, -38.0f, -38.0f};
    uint16_t m_nLastCount = 0xFFFF;
    std::thread::id m_editorThread;
};
