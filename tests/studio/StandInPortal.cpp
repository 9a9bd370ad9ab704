// A stand-in for the desktop's portal on the test's private session bus (with-dbus.sh): it owns
// org.freedesktop.portal.Desktop, writes down each file chooser question it is asked, one line
// each (the method, the parent window, the title and the options in GVariant text, tab between),
// and answers them in turn with the answers on its command line: a URI, or "cancel"; one after
// "held:" waits until the stand-in is sent SIGUSR1, as a person takes their time.
//   stand-in-portal RECORD ANSWER...
// RECORD is made, empty, once the name is owned.
#include <gio/gio.h>
#include <glib-unix.h>

#include <cstdio>
#include <deque>
#include <string>

namespace {

const char* const kInterface = R"(<node>
  <interface name="org.freedesktop.portal.FileChooser">
    <method name="OpenFile">
      <arg type="s" direction="in"/><arg type="s" direction="in"/>
      <arg type="a{sv}" direction="in"/><arg type="o" direction="out"/>
    </method>
    <method name="SaveFile">
      <arg type="s" direction="in"/><arg type="s" direction="in"/>
      <arg type="a{sv}" direction="in"/><arg type="o" direction="out"/>
    </method>
  </interface>
</node>)";

struct Pending {
    std::string to, handle, answer;
};

std::string gRecord;
std::deque<std::string> gAnswers;
std::deque<Pending> gHeld;
GDBusConnection* gBus = nullptr;

void Respond(const Pending& p) {
    GVariantBuilder results;
    g_variant_builder_init(&results, G_VARIANT_TYPE_VARDICT);
    guint32 code = 1;
    if (p.answer != "cancel") {
        const char* uris[] = {p.answer.c_str(), nullptr};
        g_variant_builder_add(&results, "{sv}", "uris", g_variant_new_strv(uris, 1));
        code = 0;
    }
    g_dbus_connection_emit_signal(
        gBus, p.to.c_str(), p.handle.c_str(), "org.freedesktop.portal.Request", "Response",
        g_variant_new("(u@a{sv})", code, g_variant_builder_end(&results)), nullptr);
    g_dbus_connection_flush_sync(gBus, nullptr, nullptr);
}

void OnCall(GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* method,
            GVariant* parameters, GDBusMethodInvocation* invocation, gpointer) {
    const char *parent = nullptr, *title = nullptr;
    GVariant* options = nullptr;
    g_variant_get(parameters, "(&s&s@a{sv})", &parent, &title, &options);
    gchar* text = g_variant_print(options, TRUE);
    if (FILE* f = std::fopen(gRecord.c_str(), "a")) {
        std::fprintf(f, "%s\t%s\t%s\t%s\n", method, parent, title, text);
        std::fclose(f);
    }
    g_free(text);
    // the handle the portal makes: the caller's name without its colon, dots as underscores
    const char* token = "none";
    g_variant_lookup(options, "handle_token", "&s", &token);
    std::string caller = sender + 1;
    for (char& c : caller)
        c = c == '.' ? '_' : c;
    Pending p{sender, "/org/freedesktop/portal/desktop/request/" + caller + "/" + token, "cancel"};
    g_variant_unref(options);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", p.handle.c_str()));
    if (!gAnswers.empty()) {
        p.answer = gAnswers.front();
        gAnswers.pop_front();
    }
    if (p.answer.rfind("held:", 0) == 0) {
        p.answer.erase(0, 5);
        gHeld.push_back(p);
    } else {
        Respond(p);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: stand-in-portal RECORD ANSWER...\n");
        return 2;
    }
    gRecord = argv[1];
    gAnswers.assign(argv + 2, argv + argc);
    GError* error = nullptr;
    gBus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!gBus) {
        std::fprintf(stderr, "stand-in-portal: %s\n", error->message);
        return 1;
    }
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kInterface, nullptr);
    static const GDBusInterfaceVTable table{OnCall, nullptr, nullptr, {}};
    g_dbus_connection_register_object(gBus, "/org/freedesktop/portal/desktop", node->interfaces[0],
                                      &table, nullptr, nullptr, nullptr);
    GVariant* owned = g_dbus_connection_call_sync(
        gBus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", "org.freedesktop.portal.Desktop", 4u),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    guint32 reply = 0;
    if (owned)
        g_variant_get(owned, "(u)", &reply);
    if (reply != 1) { // the primary owner
        std::fprintf(stderr, "stand-in-portal: the portal's name is not ours\n");
        return 1;
    }
    g_variant_unref(owned);
    std::fclose(std::fopen(gRecord.c_str(), "a"));
    g_unix_signal_add(
        SIGUSR1,
        [](gpointer) -> gboolean {
            for (; !gHeld.empty(); gHeld.pop_front())
                Respond(gHeld.front());
            return G_SOURCE_CONTINUE;
        },
        nullptr);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_main_loop_run(loop);
    return 0;
}
