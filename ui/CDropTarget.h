#pragma once

#include <string>
#include <vector>

class CWnd;
class CXConnection;
union _XEvent;

// The receiving side of drag and drop from file managers (the XDND protocol, version 5): a window
// that accepts files (CWnd::DragAcceptFiles) is told of a drag carrying a list of URIs, answers
// that it takes a copy, asks the source for the list when the files are dropped, and receives
// the local paths through CWnd::OnDropFiles.
class CDropTarget {
public:
    explicit CDropTarget(CXConnection& conn) : m_conn(conn) {}
    // Marks a top-level window as one that files may be dropped on.
    void Accept(CWnd* wnd, bool accept);
    // True when the event was part of a drag and drop and has been handled.
    bool Handle(_XEvent& event, CWnd* wnd);

    // "file:///a%20b" lines of a text/uri-list to local paths; other schemes and remote hosts
    // are left out.
    static std::vector<std::string> PathsFromUriList(const std::string& list);

private:
    void Reply(unsigned long to, unsigned long window, const char* message, long l1, long l2,
               long l4);

    CXConnection& m_conn;
    unsigned long m_source = 0; // the window dragging over us, 0 when none
    unsigned long m_target = 0; // our window it drags over
    bool m_bUris = false;       // the drag offers text/uri-list
    unsigned long m_nTime = 0;  // the drop's time, for asking for the selection
};
