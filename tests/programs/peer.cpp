// One end of a channel as a process, driven by lines on standard input; it tells what happens by
// lines on standard output. Payloads are in hexadecimal. It is compiled for each role.
//
//   peer CHANNEL [--default-handlers]
//
//   in:  notify HEX | notify-to NAME HEX | send NAME HEX | quit
//   out: name NAME | ready NAME | lost NAME | message HEX | notification HEX | reply HEX | error
//   TEXT

#include <glib-unix.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>

#include "pelmar-dbus-local.h"

namespace {

using Bytes = std::vector<char>;

void Say(const std::string& event, const std::string& value)
{
    std::cout << event << ' ' << value << std::endl;
}

std::string Hex(const Bytes& data)
{
    std::string text;
    char digits[3];
    for (const char byte : data) {
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(byte) & 0xffU);
        text += digits;
    }
    return text;
}

Bytes Unhex(const std::string& text)
{
    Bytes data;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        data.push_back(static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return data;
}

class Peer : public PelmarDbusLocal {
public:
    using PelmarDbusLocal::PelmarDbusLocal;

    // Echoes backwards, so that a reply cannot be mistaken for its request.
    Bytes HandleMessage(Bytes& data) override
    {
        Say("message", Hex(data));
        return Bytes(data.rbegin(), data.rend());
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
    std::istringstream words(line);
    std::string command;
    std::string partner;
    std::string payload;
    words >> command;
    if (command == "notify-to" || command == "send")
        words >> partner;
    words >> payload;
    Bytes data = Unhex(payload);
    if (command == "notify")
        program.local->SendNotification(data);
    else if (command == "notify-to")
        program.local->SendNotification(data, partner);
    else if (command == "send")
        SendTo(program.channel, partner, data);
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
        std::cerr << "usage: peer CHANNEL [--default-handlers]\n";
        return 2;
    }
    Program program{argv[1], nullptr, g_main_loop_new(nullptr, FALSE)};
    if (argc > 2)
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
