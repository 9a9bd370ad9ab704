#pragma once

#include <cstdint>

#include "CMorvaneCorrelate.h"
#include "mvArg.h"

// Changes the length of one segment (the audio between two onsets) by arg->dStretch without
// changing its pitch. The segment is cut into sub-blocks; each gains or loses frames (quiet ones
// more than loud ones) through one splice: a copied head, a linear cross-fade from the
// start-aligned to the end-aligned signal at the best-correlated lag, and a copied tail.
class CMorvaneBlock {
public:
    static constexpr int kMaxSubBlocks = 256;

    // What one sub-block of the last segment became (for diagnostics and tests).
    struct SubBlock {
        int32_t inFrames;
        int32_t outFrames; // the length asked of the splice; the lag comes on top
        int32_t lag;
    };

    CMorvaneBlock();
    ~CMorvaneBlock();
    CMorvaneBlock(const CMorvaneBlock&) = delete;
    CMorvaneBlock& operator=(const CMorvaneBlock&) = delete;

    void IniBlock() {
        m_Run.k = m_Run.n = 0;
        m_nCarry = 0;
        m_nSilenced = 0;
    }
    void SetBufferPointer(float* top) { m_pBufTop = top; }

    // Stretches frames interleaved frames at in into out; returns the frames written. in must
    // have up to 1024 frames of history before it (down to the buffer top) and room to read
    // past its end, as the engine's holding buffer has.
    int Block(float* out, float* in, int frames, mvArg* arg);
    // The same for a stereo segment, its channels written apart into left and right: the same
    // samples, for a caller that takes them so.
    int Block(float* left, float* right, float* in, int frames, mvArg* arg);

    // The stereo Block a few sub-blocks at a time, for a caller that hands its output on as it
    // goes: Begin plans the segment; each Next writes sub-blocks from index 0 of left and right
    // until at least most frames are written (all that are left for most 0) and returns how
    // many; Pending says whether some are still to come. in stays as it is until then. The
    // frames are those Block writes, to the bit.
    void Begin(float* in, int frames, mvArg* arg);
    int Next(float* left, float* right, mvArg* arg, int most);
    bool Pending() const { return m_Run.k < m_Run.n; }

    // Makes one sub-block of about outLen frames from inLen input frames; returns outLen plus
    // the chosen lag.
    int stretch(float* out, float* in, int inLen, int outLen, mvArg* arg, float* unused);

    // The onset frame, and the nominal sub-block at a sampling rate: 1.8 of those frames.
    static constexpr int kFrameMs = 20;
    static int NominalLength(int rate);

    static unsigned int sqr(unsigned int v);
    static int sq(int v) { return v * v; }

    int32_t Carry() const { return m_nCarry; }
    // Frames of a sounding input that became silence because their splice source lay before the
    // buffer, since the last IniBlock.
    int64_t SilencedFrames() const { return m_nSilenced; }
    int SubBlockCount() const { return m_nPlan; }
    const SubBlock& Plan(int k) const { return m_Plan[k]; }

private:
    // Where the frames go: interleaved from left, or (right set) a channel to each.
    struct Out {
        float* left;
        float* right;
        Out At(long frame, int ch) const {
            return right ? Out{left + frame, right + frame} : Out{left + frame * ch, nullptr};
        }
    };
    int Plan(Out out, float* in, int frames, mvArg* arg); // Begin, then Next for all
    int Next(Out out, mvArg* arg, int most);
    int Splice(Out out, float* in, int inLen, int outLen, mvArg* arg);

    long HistoryOf(const float* in, int ch) const;
    static int LongestInside(int inLen, long history, const mvArg* arg);
    int64_t Correlate(const float* a, const float* b, int samples) const;
    int SearchLag(const float* start, const float* E, int back, int fwd, int span, int m, int ch);
    int PrunedSearch(int back, int fwd, int span, int samples, int ch);

    // The segment being written: its sub-blocks' weights, and how far the writing has come.
    struct Run {
        float* in = nullptr;
        int n = 0, k = 0; // sub-blocks, and the next one
        int D = 0;
        int64_t W = 0;
        bool useW = false, plain = false;
        int RI = 0, RT = 0; // input frames left, output frames still owed
        int pi = 0;         // the next sub-block's first input frame
        int32_t w[kMaxSubBlocks] = {};
    } m_Run;
    uint8_t m_bLastSub = 0;
    int32_t m_nCarry = 0; // output frames owed, carried from segment to segment
    float* m_pBufTop = nullptr;
    int64_t m_nSilenced = 0;
    int32_t m_nPlan = 0;
    SubBlock m_Plan[kMaxSubBlocks] = {};
    // The splice search rounds its samples once per sub-block; a search wider than the
    // correlator holds takes the direct path.
    CMorvaneCorrelate m_Correlate;
    static constexpr int kLagChunk = 64;
    static constexpr int kStages = 4; // parts of the pattern between which lags may stop
    static constexpr int kGroup = 8;  // lags that go on or stop together
    Zeroed<int64_t> m_pPartial;       // partial sums per lag: at most one lag per sample
};
