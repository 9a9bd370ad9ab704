#include "CDropTarget.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <unistd.h>

#include "CWnd.h"
#include "CXConnection.h"

namespace {

constexpr long kVersion = 5;

int HexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

void CDropTarget::Accept(CWnd* wnd, bool accept) {
    Display* d = m_conn.Display();
    const ::Atom aware = m_conn.Atom("XdndAware");
    if (accept) {
        const long version = kVersion;
        XChangeProperty(d, wnd->m_hWnd, aware, XA_ATOM, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(&version), 1);
    } else {
        XDeleteProperty(d, wnd->m_hWnd, aware);
    }
    XFlush(d);
}

void CDropTarget::Reply(unsigned long to, unsigned long window, const char* message, long l1,
                        long l2, long l4) {
    XEvent e{};
    e.xclient.type = ClientMessage;
    e.xclient.display = m_conn.Display();
    e.xclient.window = to;
    e.xclient.message_type = m_conn.Atom(message);
    e.xclient.format = 32;
    e.xclient.data.l[0] = static_cast<long>(window);
    e.xclient.data.l[1] = l1;
    e.xclient.data.l[2] = l2;
    e.xclient.data.l[4] = l4;
    XSendEvent(m_conn.Display(), to, False, NoEventMask, &e);
    XFlush(m_conn.Display());
}

bool CDropTarget::Handle(XEvent& event, CWnd* wnd) {
    Display* d = m_conn.Display();
    const ::Atom uriList = m_conn.Atom("text/uri-list");
    if (event.type == SelectionNotify) {
        if (event.xselection.selection != m_conn.Atom("XdndSelection") || !m_source)
            return false;
        std::string list;
        if (event.xselection.property != None) {
            ::Atom type;
            int format;
            unsigned long count, after;
            unsigned char* data = nullptr;
            if (XGetWindowProperty(d, event.xselection.requestor, event.xselection.property, 0,
                                   1 << 20, True, AnyPropertyType, &type, &format, &count, &after,
                                   &data) == Success &&
                data) {
                if (format == 8)
                    list.assign(reinterpret_cast<const char*>(data), count);
                XFree(data);
            }
        }
        const std::vector<std::string> paths = PathsFromUriList(list);
        const unsigned long source = m_source;
        m_source = 0;
        Reply(source, wnd->m_hWnd, "XdndFinished", paths.empty() ? 0 : 1,
              paths.empty() ? None : static_cast<long>(m_conn.Atom("XdndActionCopy")), 0);
        if (!paths.empty())
            wnd->OnDropFiles(paths);
        return true;
    }
    if (event.type != ClientMessage)
        return false;
    const auto& c = event.xclient;
    const ::Atom type = c.message_type;
    if (type == m_conn.Atom("XdndEnter")) {
        m_source = static_cast<unsigned long>(c.data.l[0]);
        m_target = wnd->m_hWnd;
        m_bUris = false;
        if (c.data.l[1] & 1) { // more than three types: the source lists them in a property
            ::Atom t;
            int format;
            unsigned long count, after;
            unsigned char* data = nullptr;
            if (XGetWindowProperty(d, m_source, m_conn.Atom("XdndTypeList"), 0, 1024, False,
                                   XA_ATOM, &t, &format, &count, &after, &data) == Success &&
                data) {
                const auto* types = reinterpret_cast<const ::Atom*>(data);
                for (unsigned long i = 0; i < count; ++i)
                    m_bUris = m_bUris || types[i] == uriList;
                XFree(data);
            }
        } else {
            for (int i = 2; i < 5; ++i)
                m_bUris = m_bUris || static_cast<::Atom>(c.data.l[i]) == uriList;
        }
        return true;
    }
    if (type == m_conn.Atom("XdndPosition")) {
        const unsigned long source = static_cast<unsigned long>(c.data.l[0]);
        Reply(source, wnd->m_hWnd, "XdndStatus", m_bUris ? 1 : 0, 0,
              m_bUris ? static_cast<long>(m_conn.Atom("XdndActionCopy")) : None);
        return true;
    }
    if (type == m_conn.Atom("XdndLeave")) {
        m_source = 0;
        return true;
    }
    if (type == m_conn.Atom("XdndDrop")) {
        const unsigned long source = static_cast<unsigned long>(c.data.l[0]);
        if (!m_bUris || source != m_source) {
            m_source = 0;
            Reply(source, wnd->m_hWnd, "XdndFinished", 0, None, 0);
            return true;
        }
        XConvertSelection(d, m_conn.Atom("XdndSelection"), uriList, m_conn.Atom("XdndSelection"),
                          m_target, static_cast<Time>(c.data.l[2])); // the drop's own time
        XFlush(d);
        return true;
    }
    return false;
}

std::vector<std::string> CDropTarget::PathsFromUriList(const std::string& list) {
    std::vector<std::string> paths;
    size_t at = 0;
    while (at < list.size()) {
        size_t end = list.find('\n', at);
        if (end == std::string::npos)
            end = list.size();
        std::string line = list.substr(at, end - at);
        at = end + 1;
        while (!line.empty() && (line.back() == '\r' || line.back() == '\0'))
            line.pop_back();
        if (line.empty() || line[0] == '#' || line.rfind("file://", 0) != 0)
            continue;
        const size_t slash = line.find('/', 7); // after the host, which must be this one
        const std::string host = line.substr(7, slash == std::string::npos ? 0 : slash - 7);
        char here[256] = {};
        gethostname(here, sizeof(here) - 1);
        if (slash == std::string::npos || (!host.empty() && host != "localhost" && host != here))
            continue;
        std::string path;
        bool ok = true;
        for (size_t i = slash; i < line.size(); ++i) {
            if (line[i] != '%') {
                path += line[i];
                continue;
            }
            const int hi = i + 2 < line.size() ? HexDigit(line[i + 1]) : -1;
            const int lo = hi >= 0 ? HexDigit(line[i + 2]) : -1;
            if (lo < 0 || (hi == 0 && lo == 0)) {
                ok = false;
                break;
            }
            path += static_cast<char>(hi * 16 + lo);
            i += 2;
        }
        if (ok)
            paths.push_back(path);
    }
    return paths;
}
