#include "PortalChooser.h"

#include "HelperThread.h"
#include <gio/gio.h>
#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>

namespace {

namespace fs = std::filesystem;
using Outcome = PortalChooser::Outcome;

constexpr const char* kPortal = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kRequests = "/org/freedesktop/portal/desktop/request/";

// The session bus as its clients find it, without starting one: a bus started for this window
// would hold no portal.
std::string SessionBus() {
    if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address)
        return address;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || !*runtime)
        return "";
    const std::string socket = std::string(runtime) + "/bus";
    struct stat st {};
    if (stat(socket.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode))
        return "";
    gchar* escaped = g_dbus_address_escape_value(socket.c_str());
    std::string address = std::string("unix:path=") + escaped;
    g_free(escaped);
    return address;
}

// The portal's strings are UTF-8; a name that is not is shown as the desktop would show it.
GVariant* Utf8(const std::string& text) {
    if (g_utf8_validate(text.c_str(), -1, nullptr))
        return g_variant_new_string(text.c_str());
    gchar* shown = g_filename_display_name(text.c_str());
    GVariant* v = g_variant_new_string(shown);
    g_free(shown);
    return v;
}

// One filter of glob patterns, each extension in both cases (globs may be case-sensitive).
GVariant* Filter(const char* name, const std::vector<std::string>& extensions) {
    GVariantBuilder patterns;
    g_variant_builder_init(&patterns, G_VARIANT_TYPE("a(us)"));
    for (const std::string& e : extensions)
        for (bool upper : {false, true}) {
            std::string glob = "*." + e;
            for (char& c : glob)
                c = static_cast<char>(upper ? std::toupper(static_cast<unsigned char>(c)) : c);
            g_variant_builder_add(&patterns, "(us)", 0u, glob.c_str());
        }
    if (extensions.empty())
        g_variant_builder_add(&patterns, "(us)", 0u, "*");
    return g_variant_new("(s@a(us))", name, g_variant_builder_end(&patterns));
}

// What the dialog shows first: the audio files (all files one choice away), and where the field
// points: its folder, and for a save the name, or the file itself when it is there already.
GVariant* Options(const PortalChooser::Question& q, const std::string& token) {
    GVariantBuilder options;
    g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&options, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
    g_variant_builder_add(&options, "{sv}", "modal", g_variant_new_boolean(TRUE));
    GVariant* audio = g_variant_ref_sink(Filter("Audio files", q.extensions));
    GVariantBuilder filters;
    g_variant_builder_init(&filters, G_VARIANT_TYPE("a(sa(us))"));
    g_variant_builder_add_value(&filters, audio);
    g_variant_builder_add_value(&filters, Filter("All files", {}));
    g_variant_builder_add(&options, "{sv}", "filters", g_variant_builder_end(&filters));
    g_variant_builder_add(&options, "{sv}", "current_filter", audio);
    g_variant_unref(audio);

    std::error_code ec;
    const fs::path start =
        q.start.empty() ? fs::path() : fs::absolute(q.start, ec).lexically_normal();
    const bool isFolder = !start.empty() && fs::is_directory(start, ec);
    const fs::path folder = isFolder ? start : start.parent_path();
    if (!q.open && !start.empty() && fs::is_regular_file(start, ec)) {
        g_variant_builder_add(&options, "{sv}", "current_file",
                              g_variant_new_bytestring(start.c_str()));
    } else {
        if (!q.open && !start.empty() && !isFolder && start.has_filename())
            g_variant_builder_add(&options, "{sv}", "current_name", Utf8(start.filename()));
        if (!folder.empty() && fs::is_directory(folder, ec))
            g_variant_builder_add(&options, "{sv}", "current_folder",
                                  g_variant_new_bytestring(folder.c_str()));
    }
    return g_variant_builder_end(&options);
}

// A local file's URI, percent-encoded: its path; anything else is refused as it came.
PortalChooser::Answer FromUri(const char* uri) {
    gchar* host = nullptr;
    gchar* path = g_filename_from_uri(uri, &host, nullptr);
    PortalChooser::Answer answer{Outcome::Refused, uri};
    if (path && (!host || g_strcmp0(host, "localhost") == 0))
        answer = {Outcome::Chosen, path};
    g_free(path);
    g_free(host);
    return answer;
}

std::string NewToken() {
    std::random_device random;
    char token[32];
    std::snprintf(token, sizeof token, "morvane_%08x%08x", random(), random());
    return token;
}

} // namespace

// Everything a question's thread uses: made on the window's thread, then touched only on the
// question's (the withdrawal comes as a source attached to its context).
struct PortalChooser::Exchange {
    Question question;
    std::string address;
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    GCancellable* cancel = g_cancellable_new();
    GSource* timer = nullptr;
    GDBusConnection* bus = nullptr;
    std::string handle;
    guint response = 0, owner = 0; // the signal subscriptions
    int pending = 0;               // callbacks still to come: calls and subscriptions
    bool up = false;               // the portal took the question: its dialog is up
    bool over = false, late = false, withdrawn = false;
    Answer answer;

    ~Exchange() {
        if (timer)
            g_source_unref(timer);
        g_object_unref(cancel);
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }

    void Finish(Answer a) {
        if (over)
            return;
        over = true;
        answer = std::move(a);
        g_main_loop_quit(loop);
    }

    // A subscription's callback may still run after it is dropped; its end is counted.
    guint Subscribe(const char* sender, const char* interface, const char* member, const char* path,
                    const char* arg0, GDBusSignalCallback callback) {
        ++pending;
        return g_dbus_connection_signal_subscribe(
            bus, sender, interface, member, path, arg0, G_DBUS_SIGNAL_FLAGS_NONE, callback, this,
            [](gpointer self) { --static_cast<Exchange*>(self)->pending; });
    }
    void Unsubscribe(guint& id) {
        if (id)
            g_dbus_connection_signal_unsubscribe(bus, id);
        id = 0;
    }

    void WatchRequest(const std::string& path) {
        Unsubscribe(response);
        handle = path;
        response = Subscribe(kPortal, "org.freedesktop.portal.Request", "Response", handle.c_str(),
                             nullptr, &OnResponse);
    }

    // Connected: the answer's signal is watched before the question goes, at the handle the
    // portal makes from this connection's name and the token, so it cannot be missed.
    void Ask() {
        std::string sender = g_dbus_connection_get_unique_name(bus) + 1;
        for (char& c : sender)
            c = c == '.' ? '_' : c;
        const std::string token = NewToken();
        WatchRequest(kRequests + sender + "/" + token);
        owner = Subscribe("org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                          "/org/freedesktop/DBus", kPortal, &OnOwner);
        ++pending;
        g_dbus_connection_call(bus, kPortal, kPortalPath, "org.freedesktop.portal.FileChooser",
                               question.open ? "OpenFile" : "SaveFile",
                               g_variant_new("(@s@s@a{sv})",
                                             g_variant_new_string(question.parent.c_str()),
                                             Utf8(question.title), Options(question, token)),
                               G_VARIANT_TYPE("(o)"), G_DBUS_CALL_FLAGS_NONE, kStartMilliseconds,
                               cancel, &OnAsked, this);
    }

    static void OnConnected(GObject*, GAsyncResult* result, gpointer self) {
        auto& x = *static_cast<Exchange*>(self);
        --x.pending;
        x.bus = g_dbus_connection_new_for_address_finish(result, nullptr);
        if (x.over)
            return;
        if (!x.bus)
            return x.Finish({Outcome::NoPortal, ""});
        x.Ask();
    }

    static void OnAsked(GObject*, GAsyncResult* result, gpointer self) {
        auto& x = *static_cast<Exchange*>(self);
        --x.pending;
        GVariant* reply = g_dbus_connection_call_finish(x.bus, result, nullptr);
        if (x.over || !reply) {
            if (reply)
                g_variant_unref(reply);
            return x.Finish({Outcome::NoPortal, ""});
        }
        const char* handle = nullptr;
        g_variant_get(reply, "(&o)", &handle);
        if (x.handle != handle) // a portal older than handle tokens
            x.WatchRequest(handle);
        g_variant_unref(reply);
        x.up = true;
        g_source_destroy(x.timer);
    }

    static void OnResponse(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                           GVariant* parameters, gpointer self) {
        auto& x = *static_cast<Exchange*>(self);
        if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ua{sv})")))
            return x.Finish({Outcome::NoPortal, ""});
        guint32 code = 2;
        GVariant* results = nullptr;
        g_variant_get(parameters, "(u@a{sv})", &code, &results);
        Answer answer{code == 1 ? Outcome::Cancelled : Outcome::NoPortal, ""};
        const gchar** uris = nullptr;
        if (code == 0) // nothing chosen is as good as a cancel
            answer = g_variant_lookup(results, "uris", "^a&s", &uris) && uris && uris[0]
                         ? FromUri(uris[0])
                         : Answer{Outcome::Cancelled, ""};
        g_free(uris);
        g_variant_unref(results);
        x.Finish(answer);
    }

    // The portal went away with its dialog up: its answer will never come.
    static void OnOwner(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                        GVariant* parameters, gpointer self) {
        const char *name = nullptr, *before = nullptr, *now = nullptr;
        g_variant_get(parameters, "(&s&s&s)", &name, &before, &now);
        if (now && !*now)
            static_cast<Exchange*>(self)->Finish({Outcome::NoPortal, ""});
    }

    static gboolean OnLate(gpointer self) {
        auto& x = *static_cast<Exchange*>(self);
        if (!x.up) {
            x.late = true;
            x.Finish({Outcome::NoPortal, ""});
        }
        return G_SOURCE_REMOVE;
    }

    static gboolean OnWithdraw(gpointer self) {
        auto& x = *static_cast<Exchange*>(self);
        x.withdrawn = true;
        x.Finish({Outcome::Cancelled, ""});
        return G_SOURCE_REMOVE;
    }
};

PortalChooser::PortalChooser() = default;

PortalChooser::~PortalChooser() {
    if (!m_thread.joinable())
        return;
    GSource* withdraw = g_idle_source_new();
    g_source_set_callback(withdraw, &Exchange::OnWithdraw, m_exchange.get(), nullptr);
    g_source_attach(withdraw, m_exchange->context);
    g_source_unref(withdraw);
    m_thread.join();
}

bool PortalChooser::Ask(const Question& question, std::function<void()> answered) {
    if (Asking())
        return true;
    {
        std::lock_guard lock(m_lock);
        if (m_late)
            return false;
    }
    std::string address = SessionBus();
    if (address.empty())
        return false;
    m_exchange = std::make_unique<Exchange>();
    m_exchange->question = question;
    m_exchange->address = std::move(address);
    m_answered = std::move(answered);
    m_thread = StartHelperThread([this, x = m_exchange.get()] { Run(*x); });
    return true;
}

bool PortalChooser::Take(Answer& answer) {
    {
        std::lock_guard lock(m_lock);
        if (!m_have)
            return false;
        answer = std::move(m_answer);
        m_have = false;
    }
    m_thread.join(); // it has ended, or is ending: the answer was its last word
    m_exchange.reset();
    m_answered = nullptr;
    return true;
}

void PortalChooser::Run(Exchange& x) {
    g_main_context_push_thread_default(x.context);
    ++x.pending;
    g_dbus_connection_new_for_address(
        x.address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, x.cancel, &Exchange::OnConnected, &x);
    x.timer = g_timeout_source_new(kStartMilliseconds);
    g_source_set_callback(x.timer, &Exchange::OnLate, &x, nullptr);
    g_source_attach(x.timer, x.context);
    g_main_loop_run(x.loop);

    // Whatever is still under way ends before the exchange does.
    g_cancellable_cancel(x.cancel);
    g_source_destroy(x.timer);
    if (x.bus) {
        x.Unsubscribe(x.response);
        x.Unsubscribe(x.owner);
    }
    while (x.pending > 0)
        g_main_context_iteration(x.context, TRUE);
    if (x.bus) {
        if (x.withdrawn && x.up) // the window goes: so does the dialog
            g_dbus_connection_call(x.bus, kPortal, x.handle.c_str(),
                                   "org.freedesktop.portal.Request", "Close", nullptr, nullptr,
                                   G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
        g_dbus_connection_flush_sync(x.bus, nullptr, nullptr);
        g_dbus_connection_close_sync(x.bus, nullptr, nullptr);
        g_object_unref(x.bus);
        x.bus = nullptr;
    }
    g_main_context_pop_thread_default(x.context);
    Done(x.answer, x.late);
    if (!x.withdrawn)
        m_answered();
}

void PortalChooser::Done(const Answer& answer, bool late) {
    std::lock_guard lock(m_lock);
    m_answer = answer;
    m_have = true;
    m_late = m_late || late;
}
