#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// The desktop's own file chooser, asked through the XDG desktop portal on the session bus
// (org.freedesktop.portal.FileChooser). A question runs on a thread of its own with its own
// GLib main context, so the window keeps painting and answering while the portal's dialog is up,
// which may be for minutes. The window takes the answer on its own thread once told it is in.
class PortalChooser {
public:
    struct Question {
        bool open = true;   // a file to open; else a name to save under
        std::string parent; // the asking window as the portal names it: "x11:" and its id in hex
        std::string title;
        std::string start;                   // the file or folder to start from; may be empty
        std::vector<std::string> extensions; // the files listed first ("wav"), as audio files
    };
    enum class Outcome {
        Chosen,    // path holds the local file
        Cancelled, // the person closed the dialog: nothing changes
        NoPortal,  // no bus, no portal, an error, or no start in time: use a dialog of our own
        Refused    // the answer is not a local file; path holds what came
    };
    struct Answer {
        Outcome outcome = Outcome::NoPortal;
        std::string path;
    };

    PortalChooser();
    ~PortalChooser(); // a question still open is withdrawn, and its dialog closes
    PortalChooser(const PortalChooser&) = delete;
    PortalChooser& operator=(const PortalChooser&) = delete;

    // Asks, unless a question is open; answered is called on the question's thread once its
    // answer is in. False when there is no portal to ask: no session bus, or one that did not
    // start an earlier question in time.
    bool Ask(const Question& question, std::function<void()> answered);
    // A question is open: asked, and its answer not yet taken.
    bool Asking() const { return m_thread.joinable(); }
    // The answer, once answered was called; it closes the question.
    bool Take(Answer& answer);

    // How long the portal has to take a question before it counts as absent; once the dialog is
    // up, the person has all the time they need.
    static constexpr int kStartMilliseconds = 5000;

private:
    struct Exchange;
    void Run(Exchange& exchange);
    void Done(const Answer& answer, bool late);

    std::unique_ptr<Exchange> m_exchange; // the open question's, used on its thread
    std::thread m_thread;
    std::function<void()> m_answered;
    std::mutex m_lock; // guards the three below
    bool m_have = false;
    Answer m_answer;
    bool m_late = false; // a portal did not take a question in time: not asked again
};
