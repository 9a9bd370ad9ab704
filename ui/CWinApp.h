#pragma once

// The window layer's application object: one static instance per loaded module, constructed at
// load and destroyed at unload.
class CWinApp {
public:
    CWinApp() = default;
    virtual ~CWinApp() = default;
};
