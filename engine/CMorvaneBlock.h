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
    int Plan(Out out, float* in, int frames, mvArg* arg);
    int Splice(Out out, float* in, int inLen, int outLen, mvArg* arg);

    long HistoryOf(const float* in, int ch) const;
    static int LongestInside(int inLen, long history, const mvArg* arg);
    int64_t Correlate(const float* a, const float* b, int samples) const;
    int SearchLag(const float* start, const float* E, int back, int fwd, int span, int m, int ch);
    int PrunedSearch(int back, int fwd, int span, int samples, int ch);

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
