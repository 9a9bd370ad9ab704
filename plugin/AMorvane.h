#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "AMorvaneProgram.h"
#include "AMorvaneView.h"
#include "AudioEffectX.h"
#include "CCriticalSection.h"
#include "MorvaneEngine.h"
#include "MorvaneParameters.h"
#include "StretchEngine.h"

// The effect the host drives: an offline time-stretch and pitch-shift that works only in the
// variable-I/O call. Five parameters, 64 programs, a fixed announced delay of 44100 frames.
class AMorvane : public AudioEffectX {
public:
    static constexpr int kNumPrograms = 64;
    static constexpr int kNumParams = MorvaneParameters::kCount;
    static constexpr VstInt32 kInitialDelay = 44100;

    explicit AMorvane(audioMasterCallback audioMaster);
    ~AMorvane() override;

    // host interface
    void open() override;
    void suspend() override;
    void resume() override;
    void setSampleRate(float rate) override;
    void processReplacing(float**, float**, VstInt32) override {}
    void processDoubleReplacing(double**, double**, VstInt32) override {}
    void setParameter(VstInt32 index, float value) override;
    float getParameter(VstInt32 index) override;
    void setProgram(VstInt32 program) override;
    void setProgramName(char* name) override;
    void getProgramName(char* name) override;
    void getParameterLabel(VstInt32 index, char* text) override;
    void getParameterDisplay(VstInt32 index, char* text) override;
    void getParameterName(VstInt32 index, char* text) override;
    VstInt32 getChunk(void** data, bool isPreset) override;
    VstInt32 setChunk(void* data, VstInt32 size, bool isPreset) override;
    VstInt32 processEvents(void*) override { return 0; }
    bool getProgramNameIndexed(VstInt32 category, VstInt32 index, char* text) override;
    VstInt32 startProcess() override;
    bool processVariableIo(VstVariableIo* io) override;
    VstInt32 setTotalSampleToProcess(VstInt32 value) override;
    bool getEffectName(char* name) override;
    bool getVendorString(char* text) override;
    bool getProductString(char* text) override;
    VstInt32 getVendorVersion() override { return 1000; }
    VstInt32 canDo(char* text) override;
    // The engine choice (MorvaneEngine.h); any other call is not understood.
    VstIntPtr vendorSpecific(VstInt32 index, VstIntPtr value, void* ptr, float opt) override;
    VstInt32 getPlugCategory() override { return kPlugCategOfflineProcess; }

    // editor side
    // The panel lives in a library of its own (Morvane.panel), loaded when a host first asks for
    // it, so that hosts which only render never load the window libraries. It reaches the
    // effect through these virtual functions, never through code it would have to link.
    // The panel's side of the editor, attached by the editor when it is made.
    void SetView(AMorvaneView* view) { m_pView = view; }
    virtual float getParameterDisplayVal(int index);
    virtual bool IsProgramChanged();
    virtual void ProgramToInitial();
    virtual void ProgramToAllInitial();
    virtual void ProgramToFactory();
    virtual void ProgramToAllFactory();
    virtual void CopyPgFrom(int source);
    // Stores the current settings as program destination under name and writes the user's
    // bank; false (after telling the user) when the bank file could not be written.
    virtual bool SaveProgram(int destination, const char* name);
    virtual void SetFactoryProgram();
    virtual void setParameterFromDiaplay(int index, float value);
    virtual void setParameterFormUI(int index, float value, int noCheck);
    virtual void GetVU(float* m0, float* m1, float* m2, float* m3);
    virtual bool GetClip();
    uint16_t ProcessCount() const { return m_nProcessCount; }
    const char* PluginDirectory() const { return m_szPluginDir; }

    // The panel's library beside the plug-in, loaded on the first request for the editor.
    VstIntPtr dispatcher(VstInt32 opcode, VstInt32 index, VstIntPtr value, void* ptr,
                         float opt) override;

private:
    enum class BankRead { Stop, NotChunks, CutShort, Loaded };
    BankRead ReadBank(const char* path, AMorvaneProgram* chunk, size_t* bytes);
    void LoadBanks();
    bool Running() const { return m_nConsumed != 0; }
    void SetOutputGain(float gain);
    void SetSwitchOrOutput(int index, float v);
    void SetRateFromHost(int index, float v);
    void FreeBuffers();
    // to every engine, so that either can run the next job as the user left it
    void SetTimeRates(double rate);
    void SetPitchRates(double rate);
    // The panel, when it is open: parameter changes and program changes show on it.
    void EditorUpdate(int index, float value);
    void EditorModify();
    void Tell(const char* text);
    // To out[c] + at. With a gain, the samples are scaled on the way out and metered.
    void CopyFromFifo(float** out, int64_t at, int64_t frames, const float* gain = nullptr);
    void AppendToFifo(float* const* src, int64_t frames);
    // A call after the input of a job in steps has ended: returns the frames given to out.
    int64_t FlushStep(float** out, int64_t want);
    // The panel library's path beside this module, empty when there is none.
    static const std::string& PanelPath();
    void LoadPanel();

    // read by the panel without the lock to see whether new meter values exist
    std::atomic<uint16_t> m_nProcessCount{0xFFFF};
    AMorvaneProgram m_Programs[kNumPrograms];
    CCriticalSection m_cs;
    AMorvaneView* m_pView = nullptr;
    // One engine of each kind, by MorvaneEngine value less one. Both hear every setting, so
    // either can run the next job as the user left it.
    std::unique_ptr<StretchEngine> m_Engines[2] = {StretchEngine::Make(MorvaneEngine::kSplice),
                                                   StretchEngine::Make(MorvaneEngine::kCrisp)};
    // asked for by the host at any time; taken when a job starts
    std::atomic<int> m_nEngineWanted{MorvaneEngine::kSplice};
    std::atomic<bool> m_bLeadIn{true}; // the next job's output starts with the announced delay
    std::atomic<bool> m_bMono{false};  // the next job's two inputs are the same
    std::atomic<int> m_nStepWanted{0}; // the next job's flush step, 0 for at once
    // the job's; the panel reads its over flag
    std::atomic<StretchEngine*> m_pJob{m_Engines[0].get()};
    char m_szPluginDir[2048] = {};
    void* m_pPanelLibrary = nullptr; // dlopen's handle, once the panel is loaded
    bool m_bPanelTried = false;
    AMorvaneProgram m_Initial[kNumPrograms];
    AMorvaneProgram m_Factory[kNumPrograms];
    float m_fGain = 1.0f;
    float m_fHost[kNumParams] = {};
    float m_fLevel = 0; // output level, 6 dB per doubling
    float m_fCents = 0;
    float m_fPercent = 0;

    struct WaveFormat {
        uint16_t wFormatTag = 3; // IEEE float
        uint16_t nChannels = 2;
        uint32_t nSamplesPerSec = 44100;
        uint32_t nAvgBytesPerSec = 44100 * 8;
        uint16_t nBlockAlign = 8;
        uint16_t wBitsPerSample = 32;
        uint16_t cbSize = 0;
    } m_Format;

    // offline driver
    float* m_pEngineOut[2] = {};
    float* m_pFifo[2] = {};
    int64_t m_nRead = 0;
    int64_t m_nWrite = 0;
    int64_t m_nFill = 0;    // frames queued: the lead-in's silence, then those stored
    int64_t m_nSilence = 0; // of the lead-in, not yet handed out
    int64_t m_nCapacity = 0;
    int64_t m_nSlice = 0; // input frames per engine call; its output always fits
    uint8_t m_bFinished = 0;
    int m_nStep = 0; // the job's flush step (see MorvaneEngine::kStepTag), 0 for at once
    int64_t m_nTotal = 0;
    // also tells the parameter setters (user-interface thread) that a job is running
    std::atomic<int64_t> m_nConsumed{0};
    float m_fMeter[4] = {};
};
