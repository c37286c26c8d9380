// A bare GDBus service that takes and gives the bytes in one piece. It hands its answer's buffer
// over to GIO; with --copy it has GIO copy it.

#include <gio/gio.h>
#include <glib-unix.h>

#include <string_view>

#include "gdbus-bytes.h"

namespace {

using server::Bytes;

constexpr const char* OBJECT =
    "<node><interface name='org.vaska.pelmar.DbusCommunication'><method name='Send'>"
    "<arg type='ay' name='data' direction='in'/><arg type='ay' name='response' direction='out'/>"
    "</method></interface></node>";

GVariant* Copy(const Bytes& data)
{
    GVariant* array = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.data(), data.size(), 1);
    return g_variant_new_tuple(&array, 1);
}

struct Program {
    GDBusConnection* bus;
    GMainLoop* loop;
    std::string path;
    bool copy;
    std::vector<std::string> partners;
};

void Serve(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
           GVariant* parameters, GDBusMethodInvocation* invocation, gpointer user_data)
{
    Bytes data = gdbus::Read(parameters);
    Bytes answer = server::Answer(data);
    g_dbus_method_invocation_return_value(invocation, static_cast<Program*>(user_data)->copy
                                                          ? Copy(answer)
                                                          : gdbus::HandOver(std::move(answer)));
}

gboolean Obey(gint /*descriptor*/, GIOCondition /*condition*/, gpointer user_data)
{
    auto& program = *static_cast<Program*>(user_data);
    const auto emit = [&program](const std::string& partner, const Bytes& data) {
        g_dbus_connection_emit_signal(program.bus, partner.c_str(), program.path.c_str(),
                                      names::INTERFACE.c_str(), "SendSignal", Copy(data), nullptr);
    };
    if (!server::Obey(program.partners, emit))
        g_main_loop_quit(program.loop);
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string channel = server::ChannelOf(argc, argv);
    GError* error = nullptr;
    Program program{g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error),
                    g_main_loop_new(nullptr, FALSE),
                    names::Path(channel),
                    argc > 2 && std::string_view(argv[2]) == "--copy",
                    {}};
    if (program.bus == nullptr)
        server::Die(argv[0], error->message);
    const GDBusInterfaceVTable vtable{Serve, nullptr, nullptr, {}};
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(OBJECT, nullptr);
    if (g_dbus_connection_register_object(program.bus, program.path.c_str(), node->interfaces[0],
                                          &vtable, &program, nullptr, &error) == 0)
        server::Die(argv[0], error->message);
    server::Say(std::string("serving ") + g_dbus_connection_get_unique_name(program.bus));
    g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), Obey, &program);
    g_main_loop_run(program.loop);
    g_dbus_node_info_unref(node);
    g_main_loop_unref(program.loop);
    g_object_unref(program.bus);
}
