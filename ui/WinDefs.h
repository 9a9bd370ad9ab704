#pragma once

#include <cstdint>

// The numbers of the classic desktop framework that the panel code is written against: window
// messages in the Win32 numbering, styles, raster operations, menu and key codes. Key-down codes
// are the platform's (Return 36, keypad Enter 35, Escape 53); characters are delivered as the
// platform delivers them (Enter 3, arrows 28 to 31), which the numeric fields translate.

using UINT = unsigned int;
using DWORD = uint32_t;
using BOOL = int;
using WPARAM = uintptr_t;
using LPARAM = intptr_t;
using LRESULT = intptr_t;
using COLORREF = uint32_t;  // 0x00BBGGRR
using HWND = unsigned long; // the window system's window id; 0 = none
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

constexpr COLORREF RGB(int r, int g, int b) {
    return static_cast<COLORREF>((r & 0xFF) | ((g & 0xFF) << 8) | ((b & 0xFF) << 16));
}
constexpr int GetRValue(COLORREF c) {
    return c & 0xFF;
}
constexpr int GetGValue(COLORREF c) {
    return (c >> 8) & 0xFF;
}
constexpr int GetBValue(COLORREF c) {
    return (c >> 16) & 0xFF;
}
constexpr WPARAM MAKEWPARAM(unsigned lo, unsigned hi) {
    return (lo & 0xFFFF) | ((hi & 0xFFFF) << 16);
}
constexpr unsigned LOWORD(uintptr_t v) {
    return v & 0xFFFF;
}
constexpr unsigned HIWORD(uintptr_t v) {
    return (v >> 16) & 0xFFFF;
}

// messages
constexpr UINT WM_CREATE = 0x0001;
constexpr UINT WM_DESTROY = 0x0002;
constexpr UINT WM_MOVE = 0x0003;
constexpr UINT WM_SIZE = 0x0005;
constexpr UINT WM_SETFOCUS = 0x0007;
constexpr UINT WM_KILLFOCUS = 0x0008;
constexpr UINT WM_ENABLE = 0x000A;
constexpr UINT WM_SETTEXT = 0x000C;
constexpr UINT WM_PAINT = 0x000F;
constexpr UINT WM_CLOSE = 0x0010;
constexpr UINT WM_SHOWWINDOW = 0x0018;
constexpr UINT WM_KEYDOWN = 0x0100;
constexpr UINT WM_KEYUP = 0x0101;
constexpr UINT WM_CHAR = 0x0102;
constexpr UINT WM_INITDIALOG = 0x0110;
constexpr UINT WM_COMMAND = 0x0111;
constexpr UINT WM_TIMER = 0x0113;
constexpr UINT WM_MOUSEMOVE = 0x0200;
constexpr UINT WM_LBUTTONDOWN = 0x0201;
constexpr UINT WM_LBUTTONUP = 0x0202;
constexpr UINT WM_LBUTTONDBLCLK = 0x0203;
constexpr UINT WM_RBUTTONDOWN = 0x0204;
constexpr UINT WM_RBUTTONUP = 0x0205;
constexpr UINT WM_MOUSEWHEEL = 0x020A;
constexpr UINT WM_CAPTURECHANGED = 0x0215;
constexpr UINT WM_USER = 0x0400;

// window styles
constexpr DWORD WS_OVERLAPPED = 0x00000000;
constexpr DWORD WS_POPUP = 0x80000000;
constexpr DWORD WS_CHILD = 0x40000000;
constexpr DWORD WS_VISIBLE = 0x10000000;
constexpr DWORD WS_DISABLED = 0x08000000;
constexpr DWORD WS_CAPTION = 0x00C00000;
constexpr DWORD WS_BORDER = 0x00800000;
constexpr DWORD WS_SYSMENU = 0x00080000;
constexpr DWORD WS_TABSTOP = 0x00010000;
constexpr DWORD ES_RIGHT = 0x0002;
constexpr DWORD ES_AUTOHSCROLL = 0x0080;
constexpr DWORD UDS_SETBUDDYINT = 0x0002;
constexpr DWORD UDS_ALIGNRIGHT = 0x0004;
constexpr DWORD UDS_ARROWKEYS = 0x0020;
constexpr DWORD UDS_NOTHOUSANDS = 0x0080;
constexpr DWORD CBS_DROPDOWNLIST = 0x0003;
constexpr DWORD BS_DEFPUSHBUTTON = 0x0001;
constexpr DWORD DS_MODALFRAME = 0x0080;

// class styles, stock objects, cursors
constexpr UINT CS_DBLCLKS = 0x0008;
constexpr int WHITE_BRUSH = 0;
constexpr int LTGRAY_BRUSH = 1;
constexpr int HOLLOW_BRUSH = 5;
constexpr int IDC_ARROW = 32512;
constexpr int IDC_IBEAM = 32513;

// SetWindowPos and ShowWindow
constexpr UINT SWP_NOSIZE = 0x0001;
constexpr UINT SWP_NOMOVE = 0x0002;
constexpr UINT SWP_NOZORDER = 0x0004;
constexpr int SW_HIDE = 0;
constexpr int SW_SHOW = 5;

// raster operations, background modes, text output
constexpr DWORD SRCCOPY = 0x00CC0020;
constexpr DWORD SRCINVERT = 0x00660046;
constexpr DWORD SRCAND = 0x008800C6;
constexpr int TRANSPARENT = 1;
constexpr int OPAQUE = 2;
constexpr UINT ETO_OPAQUE = 0x0002;
constexpr UINT ETO_CLIPPED = 0x0004;

// menus
constexpr UINT MF_STRING = 0x0000;
constexpr UINT MF_GRAYED = 0x0001;
constexpr UINT MF_DISABLED = 0x0002;
constexpr UINT MF_CHECKED = 0x0008;
constexpr UINT MF_SEPARATOR = 0x0800;
constexpr UINT TPM_LEFTALIGN = 0x0000;
constexpr UINT TPM_RIGHTBUTTON = 0x0002;
constexpr UINT TPM_RETURNCMD = 0x0100;

// notifications and dialog results
constexpr UINT BN_CLICKED = 0;
constexpr UINT CBN_SELCHANGE = 1;
constexpr UINT EN_CHANGE = 0x0300;
constexpr UINT LBN_SELCHANGE = 1;
constexpr UINT LBN_DBLCLK = 2;
constexpr int IDOK = 1;
constexpr int IDCANCEL = 2;
constexpr UINT MB_OK = 0;

// modifier state in mouse messages
constexpr UINT MK_LBUTTON = 0x0001;
constexpr UINT MK_SHIFT = 0x0004;
constexpr UINT MK_CONTROL = 0x0008;

// GetKeyState takes the Win32 virtual keys
constexpr int VK_SHIFT = 16;
constexpr int VK_CONTROL = 17;

// key-down codes as the platform delivers them
constexpr UINT kKeyA = 0;
constexpr UINT kKeyS = 1;
constexpr UINT kKeyO = 31;
constexpr UINT kKeyEnter = 35; // keypad Enter
constexpr UINT kKeyReturn = 36;
constexpr UINT kKeyTab = 48;
constexpr UINT kKeyBackspace = 51;
constexpr UINT kKeyEscape = 53;
constexpr UINT kKeyHome = 115;
constexpr UINT kKeyPageUp = 116;
constexpr UINT kKeyDelete = 117;
constexpr UINT kKeyEnd = 119;
constexpr UINT kKeyPageDown = 121;
constexpr UINT kKeyLeft = 123;
constexpr UINT kKeyRight = 124;
constexpr UINT kKeyDown = 125;
constexpr UINT kKeyUp = 126;
// the function keys F1..F12 are kKeyF1 + 0..11
constexpr UINT kKeyF1 = 0x1000;
constexpr UINT kKeyOther = 0xFFFF;

// characters as the platform delivers them with WM_CHAR
constexpr UINT kCharHome = 1;
constexpr UINT kCharEnter = 3;
constexpr UINT kCharEnd = 4;
constexpr UINT kCharBackspace = 8;
constexpr UINT kCharTab = 9;
constexpr UINT kCharReturn = 13;
constexpr UINT kCharEscape = 27;
constexpr UINT kCharLeft = 28;
constexpr UINT kCharRight = 29;
constexpr UINT kCharUp = 30;
constexpr UINT kCharDown = 31;
constexpr UINT kCharDelete = 127;
// what a numeric field's pre-translation turns the arrow characters into
constexpr UINT kCharMappedLeft = 37;
constexpr UINT kCharMappedRight = 39;

// system metrics
constexpr int SM_CXHSCROLL = 21;
constexpr int SM_CXEDGE = 45;
int GetSystemMetrics(int index);

// One queued or dispatched message.
struct MSG {
    HWND hwnd = 0;
    UINT message = 0;
    WPARAM wParam = 0;
    LPARAM lParam = 0;
};

struct CREATESTRUCT {
    const char* lpszName;
    const char* lpszClass;
    DWORD style;
    int x, y, cx, cy;
};
using LPCREATESTRUCT = CREATESTRUCT*;

// Negative (high bit set) while the key is held: VK_SHIFT, VK_CONTROL.
short GetKeyState(int virtualKey);
