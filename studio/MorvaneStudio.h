#pragma once

// What `morvane gui` hands its window, morvane-studio.so, and what the window calls back: plain
// C types and function pointers, so that the two share no C++ class layout and the window takes
// no symbol from the executable. The window hosts the plug-in's panel and plays files; every
// render runs in the executable, through the host's table, so that its temporary file is in the
// list the executable's signal handlers clear.

#include <stddef.h>
#include <stdint.h>

struct AEffect;

#ifdef __cplusplus
extern "C" {
#endif

// Raised whenever a field below is added, removed or changes meaning; the window refuses a call
// of any other version.
#define MORVANE_STUDIO_CALL_VERSION 3u

// How a render ended.
enum MorvaneStudioOutcome {
    MORVANE_STUDIO_WRITTEN = 0,
    MORVANE_STUDIO_STOPPED = 1, // progress asked it to stop; nothing was written
    MORVANE_STUDIO_FAILED = 2,  // nothing was written; text says why
};

typedef struct MorvaneStudioRender {
    const char* input;
    const char* output;
    // Called between blocks with the share of the input taken, 0..1; returning 0 stops the render.
    int (*progress)(void* user, double fraction);
    void* user;
    // How the window names the way around silent gaps, in the note on a render that left some.
    const char* crispHint;
} MorvaneStudioRender;

typedef struct MorvaneStudioRendered {
    int outcome;  // MorvaneStudioOutcome
    int exitCode; // the status morvane would end with for the failure; 0 when written
    int64_t inputFrames, outputFrames;
    int sampleRate;
    float peak; // WRITTEN: the largest magnitude written, beyond 1 when the result clips
    // FAILED: why; WRITTEN: the note on silent gaps, or empty. Cut to fit.
    char text[4096];
} MorvaneStudioRendered;

// The plug-in's parameters, as its getParameter gives them.
#define MORVANE_STUDIO_PARAMETERS 5

// Part of an input rendered to memory for listening, with settings of its own.
typedef struct MorvaneStudioPreview {
    const char* input;
    float parameters[MORVANE_STUDIO_PARAMETERS];
    int engine;       // as MorvaneEngine numbers them
    int64_t from, to; // the input's frames to hear, from up to to
    // Each run of output frames as it is made: left and right (the same for mono). Returning 0
    // stops the preview.
    int (*deliver)(void* user, const float* left, const float* right, int frames);
    void* user;
} MorvaneStudioPreview;

// The host's side; context is passed back to each function. check and render run on the
// calling thread; preview may run on another, beside them.
typedef struct MorvaneStudioHost {
    void* context;
    // 0 when output may be rendered from input, as `morvane render` would allow it; else the
    // status morvane would end with, and why in why (cut to fit size).
    int (*check)(void* context, const char* input, const char* output, char* why, size_t size);
    // Renders with the plug-in as its panel has set it.
    void (*render)(void* context, const MorvaneStudioRender* request,
                   MorvaneStudioRendered* result);
    // Renders a preview through a plug-in of its own, one at a time. 0 when it ran to its end or
    // was stopped; else the status morvane would end with, and why in why (cut to fit size).
    int (*preview)(void* context, const MorvaneStudioPreview* request, char* why, size_t size);
} MorvaneStudioHost;

typedef struct MorvaneStudioCall {
    uint32_t version;       // MORVANE_STUDIO_CALL_VERSION; first, so that every version reads it
    struct AEffect* effect; // open and resumed; the window hosts its panel through the dispatcher
    const char* input;      // the strip's files; either may be empty
    const char* output;
    int renderNow; // render input to output at once
    const MorvaneStudioHost* host;
} MorvaneStudioCall;

// Shows the window until it is closed; returns the status morvane ends with.
int MorvaneStudioRun(const MorvaneStudioCall* call);
typedef int (*MorvaneStudioEntry)(const MorvaneStudioCall* call);

#ifdef __cplusplus
}
#endif
