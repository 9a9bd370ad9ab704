#pragma once

#include "AEffect.h"

class AudioEffect;

// The editor the host opens in its own window. The effect owns it and deletes it.
class AEffEditor {
public:
    explicit AEffEditor(AudioEffect* effect = nullptr) : effect(effect) {}
    virtual ~AEffEditor() = default;

    virtual bool getRect(ERect** rect) {
        *rect = nullptr;
        return false;
    }
    virtual bool open(void* parent) {
        systemWindow = parent;
        return false;
    }
    virtual void close() { systemWindow = nullptr; }
    virtual bool isOpen() { return systemWindow != nullptr; }
    virtual void idle() {}
    virtual void draw(ERect*) {}
    virtual void mouse(int, int) {}

    AudioEffect* getEffect() { return effect; }

protected:
    AudioEffect* effect;
    void* systemWindow = nullptr;
};
