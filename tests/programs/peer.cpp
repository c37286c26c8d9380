// One end of a channel as a process, driven by lines on standard input; it tells what happens by
// lines on standard output. Payloads are in hexadecimal. It is compiled for each role.
//
//   peer CHANNEL [--default-handlers] [--wait]
//
//   in:  notify HEX | notify-to NAME HEX | send NAME HEX | quit
//   out: name NAME | ready NAME | lost NAME | message HEX | notification HEX | reply HEX | error
//   TEXT |
//        stopping

#include <glib-unix.h>
#include <unistd.h>

#include <iostream>
#include <memory>

#include "peer-lines.h"
#include "pelmar-dbus-local.h"

namespace {

class Peer : public PelmarDbusLocal {
public:
    using PelmarDbusLocal::PelmarDbusLocal;

    Bytes HandleMessage(Bytes& data) override
    {
        Say("message", Hex(data));
        return AnswerTo(data);
    }
    void HandleNotification(Bytes& data) override { Say("notification", Hex(data)); }
    void HandleConnectionReady(bool state, const std::string& partner) override
    {
        Say(state ? "ready" : "lost", partner);
    }
};

void SendTo(const std::string& channel, const std::string& partner, const Bytes& data)
{
    const auto finish = [](GObject* connection, GAsyncResult* result, gpointer) {
        GError* error = nullptr;
        GVariant* reply =
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error);
        if (reply == nullptr) {
            Say("error", error->message);
            g_error_free(error);
            return;
        }
        GVariant* array = g_variant_get_child_value(reply, 0);
        gsize size = 0;
        const auto* bytes = static_cast<const char*>(g_variant_get_fixed_array(array, &size, 1));
        Say("reply", Hex(Bytes(bytes, bytes + size)));
        g_variant_unref(array);
        g_variant_unref(reply);
    };
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    GVariant* array = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.data(), data.size(), 1);
    g_dbus_connection_call(
        connection, partner.c_str(), ("/org/vaska/pelmar/CommunicationChannel/" + channel).c_str(),
        "org.vaska.pelmar.DbusCommunication", "Send", g_variant_new_tuple(&array, 1), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, finish, nullptr);
    g_object_unref(connection);
}

struct Program {
    std::string channel;
    std::unique_ptr<PelmarDbusLocal> local;
    GMainLoop* loop;
};

void Obey(Program& program, const std::string& line)
{
    Command command(line);
    if (command.name == "notify")
        program.local->SendNotification(command.data);
    else if (command.name == "notify-to")
        program.local->SendNotification(command.data, command.partner);
    else if (command.name == "send")
        SendTo(program.channel, command.partner, command.data);
    else
        g_main_loop_quit(program.loop);
}

gboolean ReadCommand(GIOChannel* input, GIOCondition /*condition*/, gpointer user_data)
{
    auto* program = static_cast<Program*>(user_data);
    gchar* line = nullptr;
    if (g_io_channel_read_line(input, &line, nullptr, nullptr, nullptr) == G_IO_STATUS_NORMAL) {
        Obey(*program, g_strchomp(line));
        g_free(line);
        return G_SOURCE_CONTINUE;
    }
    g_main_loop_quit(program->loop);
    return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::cerr << "usage: peer CHANNEL [--default-handlers] [--wait]\n";
        return 2;
    }
    WaitForGo(argc, argv);
    Program program{argv[1], nullptr, g_main_loop_new(nullptr, FALSE)};
    if (argc > 2 && std::string(argv[2]) == "--default-handlers")
        program.local = std::make_unique<PelmarDbusLocal>(program.channel);
    else
        program.local = std::make_unique<Peer>(program.channel);

    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    Say("name", connection != nullptr ? g_dbus_connection_get_unique_name(connection) : "none");
    GIOChannel* input = g_io_channel_unix_new(STDIN_FILENO);
    g_io_channel_set_encoding(input, nullptr, nullptr);
    g_io_add_watch(input, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), ReadCommand, &program);
    g_main_loop_run(program.loop);

    program.local.reset();
    g_io_channel_unref(input);
    g_main_loop_unref(program.loop);
    g_clear_object(&connection);
    return 0;
}
