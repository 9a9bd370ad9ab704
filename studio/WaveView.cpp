#include "WaveView.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "BaseName.h"
#include "CDC.h"

namespace {

constexpr COLORREF kRulerFace = RGB(43, 47, 54); // the panel's own header colour
constexpr COLORREF kRulerText = RGB(168, 175, 186);
constexpr COLORREF kRulerTick = RGB(96, 103, 114);
constexpr COLORREF kGutterFace = RGB(34, 37, 43);
constexpr COLORREF kGutterText = RGB(150, 157, 168);
constexpr COLORREF kRule = RGB(18, 20, 23); // between lanes
constexpr COLORREF kLaneFace = RGB(25, 28, 33);
constexpr COLORREF kPastEnd = RGB(20, 22, 26);
constexpr COLORREF kLoopFace = RGB(33, 48, 66);
constexpr COLORREF kLoopEdge = RGB(86, 140, 204);
constexpr COLORREF kGrid = RGB(35, 39, 45);
constexpr COLORREF kHalfScale = RGB(31, 35, 41);
constexpr COLORREF kCentre = RGB(56, 61, 70);
constexpr COLORREF kPlayhead = RGB(255, 255, 255);
constexpr COLORREF kCursor = RGB(150, 158, 170);
// each lane's wave: the envelope of lowest and highest samples, and the loudness inside it
constexpr COLORREF kWave[WaveView::kLanes] = {RGB(64, 142, 196), RGB(56, 170, 140)};
constexpr COLORREF kLoud[WaveView::kLanes] = {RGB(128, 200, 246), RGB(120, 224, 186)};
constexpr COLORREF kClipWave = RGB(196, 64, 56);
const char* const kNames[WaveView::kLanes] = {"SOURCE", "RESULT"};

uint32_t Pixel(COLORREF c) {
    return static_cast<uint32_t>(GetRValue(c) << 16 | GetGValue(c) << 8 | GetBValue(c));
}

// c over the pixel at share a.
void Blend(uint32_t& px, COLORREF c, double a) {
    if (a <= 0)
        return;
    a = std::min(1.0, a);
    const auto mix = [a](uint32_t under, int over) {
        return static_cast<uint32_t>(std::lround(under + (over - static_cast<int>(under)) * a));
    };
    px = mix(px >> 16 & 0xFF, GetRValue(c)) << 16 | mix(px >> 8 & 0xFF, GetGValue(c)) << 8 |
         mix(px & 0xFF, GetBValue(c));
}

// From top to bottom (pixels, fractional) in a column of a picture w wide, h high, the partly
// covered ends blended by how much they are covered.
void FillColumn(std::vector<uint32_t>& pixels, int w, int h, int x, double top, double bottom,
                COLORREF c) {
    top = std::max(0.0, top);
    bottom = std::min(static_cast<double>(h), bottom);
    for (int y = static_cast<int>(std::floor(top)); y < bottom; ++y)
        Blend(pixels[static_cast<size_t>(y) * w + x], c,
              std::min(y + 1.0, bottom) - std::max(static_cast<double>(y), top));
}

// A ruler's step in seconds that leaves at least minimum pixels between labels.
double TickStep(double pixelsPerSecond, double minimum) {
    static constexpr double kSteps[] = {0.1, 0.2, 0.5, 1,   2,   5,   10,
                                        15,  30,  60,  120, 300, 600, 1800};
    for (double s : kSteps)
        if (s * pixelsPerSecond >= minimum)
            return s;
    return 3600;
}

// m:ss, or m:ss.d below a second's step
std::string Clock(double seconds, bool tenths) {
    char text[32];
    if (tenths) {
        const long t = std::lround(std::max(0.0, seconds) * 10);
        std::snprintf(text, sizeof text, "%ld:%02ld.%ld", t / 600, t / 10 % 60, t % 10);
    } else {
        const long s = std::lround(std::max(0.0, seconds));
        std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    }
    return text;
}

int64_t Stamp(const std::string& path) {
    std::error_code e;
    const auto t = std::filesystem::last_write_time(path, e);
    const auto size = std::filesystem::file_size(path, e);
    return e ? -1 : static_cast<int64_t>(t.time_since_epoch().count()) ^ static_cast<int64_t>(size);
}

void Text(CDC& dc, int x, int y, const std::string& text, const CRect& clip) {
    dc.ExtTextOut(x, y, ETO_CLIPPED, &clip, text.c_str(), static_cast<UINT>(text.size()));
}

} // namespace

BEGIN_MESSAGE_MAP(WaveView, CWnd)
ON_WM_PAINT()
ON_WM_LBUTTONDOWN()
ON_WM_MOUSEMOVE()
ON_WM_LBUTTONUP()
END_MESSAGE_MAP()

BOOL WaveView::Create(const CRect& rect, CWnd* parent, UINT id) {
    m_font.CreatePixelFont(11, "sans-serif");
    m_bold.CreatePixelFont(11, "sans-serif", true);
    m_tiny.CreatePixelFont(10, "sans-serif");
    return CreateEx(0, AfxRegisterWndClass(0), "", WS_CHILD | WS_VISIBLE, rect, parent, id);
}

void WaveView::SetFile(int lane, const std::string& path, bool reload) {
    LaneState& l = m_lanes[lane];
    const int64_t stamp = path.empty() ? 0 : Stamp(path);
    if (path == l.path && !reload && stamp == l.stamp)
        return;
    // a summary still reading stops beside the next one, as the player's sessions do
    if (l.summary) {
        l.summary->Stop();
        m_retired.push_back(std::move(l.summary));
    }
    l.path = path;
    l.stamp = stamp;
    l.drawnProgress = -1;
    if (!path.empty() && stamp != -1)
        l.summary = std::make_unique<PeakSummary>(path);
    Invalidate();
}

void WaveView::SetPlayhead(double fraction, int playing) {
    fraction = std::clamp(fraction, 0.0, 1.0);
    const double before = m_playhead;
    const bool wasPlaying = m_playing >= 0;
    const std::string clock = Clock(HeardSeconds(), true);
    m_playhead = fraction;
    m_playing = playing;
    // Only what moved is painted, at once and each on its own, so that a playhead moving on a
    // long file costs a few narrow columns rather than the whole view.
    for (int lane = 0; lane < kLanes; ++lane) {
        const int from = static_cast<int>(std::floor(XOf(lane, before)));
        const int to = static_cast<int>(std::floor(XOf(lane, fraction)));
        if (from == to && wasPlaying == (playing >= 0))
            continue;
        const CRect r = LaneRect(lane);
        const CRect c(std::min(from, to) - 5, r.top, std::max(from, to) + 6, r.bottom);
        InvalidateRect(&c, FALSE);
        UpdateWindow();
    }
    if (Clock(HeardSeconds(), true) != clock || wasPlaying != (playing >= 0)) {
        const CRect gutter(0, 0, kGutter, kRulerHeight); // the time heard, shown there
        InvalidateRect(&gutter, FALSE);
        UpdateWindow();
    }
}

double WaveView::HeardSeconds() const {
    return m_playhead * Seconds(m_playing == kResult ? kResult : kSource);
}

void WaveView::SetLoop(double from, double to) {
    if (!(to > from))
        from = to = 0;
    if (from == m_loopFrom && to == m_loopTo)
        return;
    m_loopFrom = from;
    m_loopTo = to;
    InvalidateLanes();
}

void WaveView::Poll() {
    std::erase_if(m_retired, [](const auto& s) { return s->Finished(); });
    for (int lane = 0; lane < kLanes; ++lane) {
        const LaneState& l = m_lanes[lane];
        if (l.summary)
            l.summary->Reap();
        // a picture at most every few percent of a long file, and the last one
        if (l.summary && (l.summary->Finished() != l.drawnFinished ||
                          l.summary->Progress() - l.drawnProgress >= 0.02))
            InvalidateLanes();
    }
}

void WaveView::InvalidateLanes() {
    for (LaneState& l : m_lanes)
        l.drawnProgress = -1;
    Invalidate(FALSE);
}

CRect WaveView::LaneRect(int lane) const {
    CRect c;
    GetClientRect(&c);
    const int top = kRulerHeight + 1 + lane * (kLaneHeight + 1);
    return CRect(0, top, c.right, top + kLaneHeight);
}

CRect WaveView::WaveRect(int lane) const {
    CRect r = LaneRect(lane);
    r.left = kGutter;
    return r;
}

double WaveView::Seconds(int lane) const {
    return m_lanes[lane].summary ? m_lanes[lane].summary->Seconds() : 0.0;
}

double WaveView::Axis() const {
    return std::max({Seconds(kSource), Seconds(kResult), 1e-3});
}

double WaveView::XOf(int lane, double fraction) const {
    const CRect r = WaveRect(lane);
    return r.left + fraction * Seconds(lane) / Axis() * r.Width();
}

double WaveView::FractionAt(int lane, int x) const {
    const CRect r = WaveRect(lane);
    const double seconds = Seconds(lane);
    if (seconds <= 0 || r.Width() <= 0)
        return 0;
    return std::clamp((x - r.left) / static_cast<double>(r.Width()) * Axis() / seconds, 0.0, 1.0);
}

int WaveView::LaneAt(CPoint p) const {
    for (int lane = 0; lane < kLanes; ++lane)
        if (WaveRect(lane).PtInRect(p) && m_lanes[lane].summary && Seconds(lane) > 0)
            return lane;
    return -1;
}

void WaveView::OnLButtonDown(UINT, CPoint point) {
    m_dragLane = LaneAt(point);
    if (m_dragLane < 0)
        return;
    m_dragX = point.x;
    m_dragged = false;
    m_dragFrom = FractionAt(m_dragLane, point.x);
    SetCapture();
}

void WaveView::OnMouseMove(UINT, CPoint point) {
    if (m_dragLane < 0)
        return;
    // a few pixels of wobble are still a click
    if (!m_dragged && std::abs(point.x - m_dragX) < 4)
        return;
    m_dragged = true;
    const double at = FractionAt(m_dragLane, point.x);
    SetLoop(std::min(m_dragFrom, at), std::max(m_dragFrom, at)); // shown while it is drawn
}

void WaveView::OnLButtonUp(UINT, CPoint point) {
    if (m_dragLane < 0)
        return;
    const int lane = m_dragLane;
    m_dragLane = -1;
    m_dragged = m_dragged || std::abs(point.x - m_dragX) >= 4;
    ReleaseCapture();
    const double at = FractionAt(lane, point.x);
    if (OnPick)
        OnPick(lane, m_dragged ? std::min(m_dragFrom, at) : m_dragFrom,
               m_dragged ? std::max(m_dragFrom, at) : m_dragFrom);
}

void WaveView::Picture(int lane) {
    LaneState& l = m_lanes[lane];
    const CRect r = WaveRect(lane);
    const int w = r.Width(), h = r.Height();
    if (w <= 0 || h <= 0)
        return;
    const PeakSummary* s = l.summary.get();
    const double progress = s ? s->Progress() : 0;
    const bool finished = s && s->Finished();
    if (!l.picture.IsEmpty() && progress == l.drawnProgress && finished == l.drawnFinished &&
        Axis() == l.drawnAxis && m_loopFrom == l.drawnFrom && m_loopTo == l.drawnTo &&
        l.picture.GetWidth() == w)
        return;
    l.drawnProgress = progress;
    l.drawnFinished = finished;
    l.drawnAxis = Axis();
    l.drawnFrom = m_loopFrom;
    l.drawnTo = m_loopTo;

    const double seconds = Seconds(lane);
    const int fileColumns =
        std::min(w, static_cast<int>(std::lround(seconds / Axis() * w)) + (seconds > 0 ? 1 : 0));
    const bool looped = m_loopTo > m_loopFrom && seconds > 0;
    const int loopA = static_cast<int>(std::lround(XOf(lane, m_loopFrom))) - r.left;
    const int loopB = static_cast<int>(std::lround(XOf(lane, m_loopTo))) - r.left;
    const double step = TickStep(w / Axis(), 70) / 5; // the ruler's small ticks
    std::vector<uint32_t> px(static_cast<size_t>(w) * h);
    const double mid = h / 2.0, half = h / 2.0 - 3;
    for (int x = 0; x < w; ++x) {
        const bool inLoop = looped && x >= loopA && x <= loopB && x < fileColumns;
        const uint32_t face = Pixel(x >= fileColumns ? kPastEnd : inLoop ? kLoopFace : kLaneFace);
        for (int y = 0; y < h; ++y)
            px[static_cast<size_t>(y) * w + x] = face;
    }
    // the grid: every small tick of the ruler, and half scale (-6 dB) above and below
    const double pixelsPerStep = step / Axis() * w;
    for (double gx = pixelsPerStep * 5; gx < w; gx += pixelsPerStep * 5)
        for (int y = 0; y < h; ++y)
            Blend(px[static_cast<size_t>(y) * w + static_cast<int>(gx)], kGrid, 1);
    for (int x = 0; x < fileColumns; ++x) {
        Blend(px[static_cast<size_t>(std::lround(mid - half / 2)) * w + x], kHalfScale, 1);
        Blend(px[static_cast<size_t>(std::lround(mid + half / 2)) * w + x], kHalfScale, 1);
        Blend(px[static_cast<size_t>(mid) * w + x], kCentre, 1);
    }
    if (s && s->Opened()) {
        const std::vector<PeakSummary::Peak> columns = s->Columns(fileColumns);
        for (int x = 0; x < fileColumns; ++x) {
            const PeakSummary::Peak& p = columns[static_cast<size_t>(x)];
            if (!p.read)
                continue;
            const double top = mid - std::clamp(p.high, -1.0f, 1.0f) * half;
            const double bottom = std::max(top + 1, mid - std::clamp(p.low, -1.0f, 1.0f) * half);
            FillColumn(px, w, h, x, top, bottom, p.clips ? kClipWave : kWave[lane]);
            const double loud = std::min(p.rms, 1.0f) * half;
            FillColumn(px, w, h, x, std::max(top, mid - loud), std::min(bottom, mid + loud),
                       kLoud[lane]);
        }
        // flat red at both edges where samples reached full scale, wide enough to be seen when
        // a single column clips
        for (int x = 0; x < fileColumns; ++x)
            if (columns[static_cast<size_t>(x)].clips)
                for (int mx = std::max(0, x - 1); mx <= std::min(w - 1, x + 1); ++mx)
                    for (int y = 0; y < 5; ++y) {
                        px[static_cast<size_t>(y) * w + mx] = Pixel(kClipColour);
                        px[static_cast<size_t>(h - 1 - y) * w + mx] = Pixel(kClipColour);
                    }
    }
    if (looped)
        for (int x : {loopA, loopB})
            if (x >= 0 && x < std::min(w, fileColumns + 1))
                for (int y = 0; y < h; ++y)
                    px[static_cast<size_t>(y) * w + x] = Pixel(kLoopEdge);
    l.picture.DeleteObject();
    l.picture.CreateFromPixels(w, h, px.data());
}

void WaveView::OnPaint() {
    CPaintDC dc(this);
    dc.SetBkMode(TRANSPARENT);
    // only the parts that meet what is painted: a moving playhead paints narrow columns
    const auto meets = [&dc](const CRect& r) { return CRect().IntersectRect(r, dc.m_rcPaint); };
    CRect c;
    GetClientRect(&c);
    if (meets(CRect(0, 0, c.right, kRulerHeight)))
        DrawRuler(dc);
    for (int lane = 0; lane < kLanes; ++lane) {
        const CRect r = LaneRect(lane);
        dc.FillSolidRect(CRect(r.left, r.top - 1, r.right, r.top), kRule);
        if (meets(r))
            DrawLane(dc, lane, meets(CRect(r.left, r.top, kGutter, r.bottom)));
    }
    dc.FillSolidRect(CRect(0, c.bottom - 1, c.right, c.bottom), kRule);
}

void WaveView::DrawRuler(CDC& dc) {
    CRect c;
    GetClientRect(&c);
    const CRect ruler(0, 0, c.right, kRulerHeight);
    dc.FillSolidRect(ruler, kRulerFace);
    // the time heard, over the names
    dc.FillSolidRect(CRect(0, 0, kGutter, kRulerHeight), kGutterFace);
    dc.FillSolidRect(CRect(kGutter - 1, 0, kGutter, kRulerHeight), kRule);
    dc.SelectObject(&m_bold);
    dc.SetTextColor(m_playing >= 0 ? RGB(236, 240, 245) : kGutterText);
    const std::string now = Clock(HeardSeconds(), true);
    const CSize t = dc.GetTextExtent(now.c_str());
    Text(dc, (kGutter - t.cx) / 2, (kRulerHeight - t.cy) / 2, now, ruler);

    const CRect waves = WaveRect(kSource);
    const double pps = waves.Width() / Axis();
    const double step = TickStep(pps, 70);
    dc.SelectObject(&m_tiny);
    dc.SetTextColor(kRulerText);
    const CRect clip(kGutter, 0, c.right, kRulerHeight);
    for (int i = 0;; ++i) {
        const double seconds = i * step / 5;
        const int x = waves.left + static_cast<int>(seconds * pps);
        if (x >= c.right)
            break;
        const bool major = i % 5 == 0;
        dc.FillSolidRect(CRect(x, kRulerHeight - (major ? 9 : 4), x + 1, kRulerHeight), kRulerTick);
        if (major)
            Text(dc, x + 3, 2, Clock(seconds, step < 1), clip);
    }
}

// the gutter: the lane's name, its length, and what went wrong
void WaveView::DrawNames(CDC& dc, int lane, const CRect& gutter) {
    const PeakSummary* s = m_lanes[lane].summary.get();
    dc.FillSolidRect(gutter, kGutterFace);
    dc.FillSolidRect(CRect(gutter.right - 1, gutter.top, gutter.right, gutter.bottom), kRule);
    dc.FillSolidRect(CRect(gutter.left, gutter.top, gutter.left + 3, gutter.bottom), kWave[lane]);
    dc.SelectObject(&m_bold);
    dc.SetTextColor(kLoud[lane]);
    Text(dc, 12, gutter.top + 8, kNames[lane], gutter);
    dc.SelectObject(&m_font);
    dc.SetTextColor(kGutterText);
    if (s && s->Opened()) {
        Text(dc, 12, gutter.top + 26, Clock(s->Seconds(), true), gutter);
        char rate[32];
        std::snprintf(rate, sizeof rate, "%.1f kHz", s->SampleRate() / 1000.0);
        Text(dc, 12, gutter.top + 41, rate, gutter);
        if (lane == kResult && Seconds(kSource) > 0) {
            char stretch[32];
            std::snprintf(stretch, sizeof stretch, "time %.1f %%",
                          100 * Seconds(kResult) / Seconds(kSource));
            Text(dc, 12, gutter.top + 56, stretch, gutter);
        }
        if (s->Finished() && s->Span(0, s->Bins()).clips) {
            dc.SetTextColor(kClipColour);
            dc.SelectObject(&m_bold);
            Text(dc, 12, gutter.bottom - 20, "CLIPS", gutter);
        }
    }
}

void WaveView::DrawLane(CDC& dc, int lane, bool names) {
    const LaneState& l = m_lanes[lane];
    const CRect r = LaneRect(lane), waves = WaveRect(lane);
    const PeakSummary* s = l.summary.get();
    if (names)
        DrawNames(dc, lane, CRect(r.left, r.top, waves.left, r.bottom));

    Picture(lane);
    if (!l.picture.IsEmpty()) {
        CDC mem;
        mem.CreateCompatibleDC(&dc);
        mem.SelectObject(const_cast<CBitmap*>(&l.picture));
        dc.BitBlt(waves.left, waves.top, waves.Width(), waves.Height(), &mem, 0, 0, SRCCOPY);
    }

    // what the lane says in place of waves
    std::string note;
    if (!s)
        note = lane == kSource ? "Drop an audio file here, or type its path above"
                               : (l.path.empty() || Stamp(l.path) == -1
                                      ? "The result appears here after a render (F5)"
                                      : "");
    else if (!s->Error().empty())
        note = "Cannot read " + BaseName(l.path);
    else if (!s->Finished()) {
        char reading[48];
        std::snprintf(reading, sizeof reading, "reading\xE2\x80\xA6 %d %%",
                      static_cast<int>(s->Progress() * 100));
        note = reading;
    }
    if (!note.empty()) {
        dc.SelectObject(&m_font);
        const CSize t = dc.GetTextExtent(note.c_str());
        const int x = waves.left + (waves.Width() - t.cx) / 2,
                  y = waves.top + (r.Height() - t.cy) / 2;
        dc.FillSolidRect(CRect(x - 8, y - 4, x + t.cx + 8, y + t.cy + 4), kGutterFace);
        dc.SetTextColor(RGB(200, 206, 214));
        Text(dc, x, y, note, waves);
    }

    // the playhead, at the same point of the music on both lanes
    if (s && s->Opened() && s->Seconds() > 0) {
        const int x = static_cast<int>(std::floor(XOf(lane, m_playhead)));
        const bool heard = m_playing == lane;
        const COLORREF c = heard ? kPlayhead : kCursor;
        dc.FillSolidRect(CRect(x, r.top, x + 1, r.bottom), c);
        if (heard) // a flag at the top, on the lane that is heard
            for (int i = 0; i < 5; ++i)
                dc.FillSolidRect(CRect(x - 4 + i, r.top + i, x + 5 - i, r.top + i + 1), c);
    }
}
