#include "StretchEngine.h"

#include "CrispEngine.h"
#include "MorvaneEngine.h"
#include "SpliceEngine.h"

// The one place that knows which class each kind of engine is.
std::unique_ptr<StretchEngine> StretchEngine::Make(int kind) {
    switch (kind) {
    case MorvaneEngine::kSplice:
        return std::make_unique<SpliceEngine>();
    case MorvaneEngine::kCrisp:
        return std::make_unique<CrispEngine>();
    default:
        return nullptr;
    }
}
