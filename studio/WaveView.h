#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "CBitmap.h"
#include "CFont.h"
#include "CWnd.h"
#include "PeakSummary.h"

// The source and the result drawn one lane above the other under a time ruler, on one time
// axis, so that the result's lane is as much longer as the render made it. A point of the music
// is a share of the piece (the result is the source stretched evenly), shown on each lane at its
// own time: the playhead, the loop. A click in a lane asks to play that lane's file from there, a
// drag across it asks to loop what it covered (through OnPick). Each file is summarised once on
// a thread of its own (PeakSummary) and drawn as it is read.
class WaveView : public CWnd {
public:
    enum Lane { kSource = 0, kResult = 1 };
    static constexpr int kLanes = 2;
    // The layout, for the window's size and for those who click in it.
    static constexpr int kRulerHeight = 22;
    static constexpr int kLaneHeight = 104;
    static constexpr int kGutter = 84; // the lanes' names, left of the waves
    static constexpr int kHeight = kRulerHeight + kLanes * (kLaneHeight + 1) + 1;
    // What marks a clipped column; drawn flat, so that it is found on the screen.
    static constexpr COLORREF kClipColour = RGB(255, 56, 48);

    BOOL Create(const CRect& rect, CWnd* parent, UINT id);

    // The file shown in a lane (empty for none). The same path again is summarised anew only when
    // reload is set or the file changed on the disk since it was read.
    void SetFile(int lane, const std::string& path, bool reload = false);
    // The summary of a lane's file, or null.
    const PeakSummary* Summary(int lane) const { return m_lanes[lane].summary.get(); }
    // The point of the music heard (share of the piece), and which lane's file plays: -1 when
    // nothing does, the point then being where playback starts next.
    void SetPlayhead(double fraction, int playing);
    // The loop as shares of the piece; from >= to for none.
    void SetLoop(double from, double to);
    // Repaints what the summaries have read since the last call; joins the readers that ended.
    void Poll();

    // A click in lane (from == to) or a drag across it (from < to), as shares of the piece.
    std::function<void(int lane, double from, double to)> OnPick;

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnPaint();
    void OnLButtonDown(UINT flags, CPoint point);
    void OnMouseMove(UINT flags, CPoint point);
    void OnLButtonUp(UINT flags, CPoint point);

private:
    struct LaneState {
        std::string path;
        std::unique_ptr<PeakSummary> summary;
        int64_t stamp = 0; // the file's change time when summarised
        // what the picture was drawn from, to draw it again only when that changes
        CBitmap picture;
        double drawnProgress = -1, drawnAxis = 0, drawnFrom = 0, drawnTo = 0;
        bool drawnFinished = false;
    };

    CRect LaneRect(int lane) const;
    CRect WaveRect(int lane) const; // the lane less its gutter
    // Seconds across the waves: the longer of the two files.
    double Axis() const;
    double Seconds(int lane) const;
    // Where a share of the piece is on a lane, and back.
    double XOf(int lane, double fraction) const;
    double FractionAt(int lane, int x) const;
    int LaneAt(CPoint point) const;

    void DrawRuler(CDC& dc);
    // names: the gutter too, with the lane's name
    void DrawLane(CDC& dc, int lane, bool names);
    void DrawNames(CDC& dc, int lane, const CRect& gutter);
    double HeardSeconds() const; // where the playhead is in the file heard (or the source)
    // The lane's waves as a picture: background, grid, loop, envelope, loudness and clip marks.
    void Picture(int lane);
    void InvalidateLanes();

    std::array<LaneState, kLanes> m_lanes;
    std::vector<std::unique_ptr<PeakSummary>> m_retired; // summaries still stopping
    CFont m_font, m_bold, m_tiny;
    double m_playhead = 0;
    int m_playing = -1;
    double m_loopFrom = 0, m_loopTo = 0;
    // a drag in progress: its lane and where it started (x), or -1
    int m_dragLane = -1, m_dragX = 0;
    bool m_dragged = false;
    double m_dragFrom = 0;
};
