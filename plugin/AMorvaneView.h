#pragma once

// What the effect shows on its panel. The effect owns this interface and its editor implements
// it, so the effect's code reaches the panel without linking any of it; with no editor attached
// (a test, a fuzz target) changes go nowhere and messages go to standard error.
class AMorvaneView {
public:
    // A parameter changed, from the host or the effect; value in display units.
    virtual void ShowParameter(int index, float value) = 0;
    // The current program, or whether it differs from its stored version, changed.
    virtual void ShowProgramState() = 0;
    // A modal message to the user.
    virtual void ShowMessage(const char* text) = 0;

protected:
    ~AMorvaneView() = default;
};
