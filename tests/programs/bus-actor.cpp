// Somebody on the bus who is no channel, driven by lines on standard input: plays what is broken.
//
//   bus-actor
//
//   in:  acquire NAME | release NAME | pulse NAME | serve CHANNEL | occupy CHANNEL | direct CHANNEL
//   |
//        switch CHANNEL NAME | quit
//   out: name NAME | done COMMAND | error TEXT
//
// To serve is to have the channel's object, to occupy is to have something else at its path; direct
// is to have the object and to say that it goes past the bus with some who are none; switch is what
// a client says last by the bus.

#include <gio/gio.h>

#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

constexpr const char* CHANNEL_OBJECT =
    "<node><interface name='org.vaska.pelmar.DbusCommunication'><method name='Send'>"
    "<arg type='ay' name='data' direction='in'/><arg type='ay' name='response' direction='out'/>"
    "</method></interface></node>";
constexpr const char* PATH_OBJECT =
    "<node><interface name='org.vaska.pelmar.DirectPath1'>"
    "<property type='as' name='Partners' access='read'/></interface></node>";
constexpr const char* OTHER_OBJECT =
    "<node><interface name='org.example.Other'><method name='Nothing'/></interface></node>";

GVariant* PartnersOf(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                     const gchar* /*path*/, const gchar* /*interface*/, const gchar* /*property*/,
                     GError** /*error*/, gpointer /*nothing*/)
{
    const gchar* const names[] = {":1.1000",           "",     "a\x1b[31m", ":1.1\n:1.2",
                                  "org.example.Other", nullptr};
    return g_variant_new_strv(names, -1);
}

void Check(bool good, GError* error)
{
    if (!good)
        throw std::runtime_error(error != nullptr ? error->message : "no reason given");
}

class Actor {
public:
    Actor() : m_connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr))
    {
        Check(m_connection != nullptr, nullptr);
    }

    std::string Name() const { return g_dbus_connection_get_unique_name(m_connection); }

    void Acquire(const std::string& name)
    {
        constexpr guint32 do_not_queue = 4;
        CallDaemon("RequestName", g_variant_new("(su)", name.c_str(), do_not_queue));
    }
    void Release(const std::string& name)
    {
        CallDaemon("ReleaseName", g_variant_new("(s)", name.c_str()));
    }

    void Export(const std::string& channel, const char* xml)
    {
        static const GDBusInterfaceVTable vtable = {nullptr, PartnersOf, nullptr, {}};
        const std::string path = "/org/vaska/pelmar/CommunicationChannel/" + channel;
        GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml, nullptr);
        GError* error = nullptr;
        const guint id = g_dbus_connection_register_object(
            m_connection, path.c_str(), node->interfaces[0], &vtable, nullptr, nullptr, &error);
        g_dbus_node_info_unref(node);
        Check(id != 0, error);
    }

    void Switch(const std::string& channel, const std::string& service)
    {
        const std::string path = "/org/vaska/pelmar/CommunicationChannel/" + channel;
        GDBusMessage* call = g_dbus_message_new_method_call(
            service.c_str(), path.c_str(), "org.vaska.pelmar.DirectPath1", "Switch");
        g_dbus_message_set_flags(call, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
        g_dbus_connection_send_message(m_connection, call, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
        g_object_unref(call);
    }

private:
    void CallDaemon(const char* method, GVariant* arguments)
    {
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_sync(
            m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            method, arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
        Check(reply != nullptr, error);
        g_variant_unref(reply);
    }

    GDBusConnection* m_connection;
};

void Obey(Actor& actor, const std::string& command, const std::string& argument,
          const std::string& name)
{
    if (command == "acquire" || command == "pulse")
        actor.Acquire(argument);
    if (command == "release" || command == "pulse")
        actor.Release(argument);
    if (command == "serve" || command == "direct")
        actor.Export(argument, CHANNEL_OBJECT);
    if (command == "occupy")
        actor.Export(argument, OTHER_OBJECT);
    if (command == "direct")
        actor.Export(argument, PATH_OBJECT);
    if (command == "switch")
        actor.Switch(argument, name);
}

}  // namespace

int main()
{
    Actor actor;
    std::cout << "name " << actor.Name() << std::endl;
    std::thread([] { g_main_loop_run(g_main_loop_new(nullptr, FALSE)); }).detach();
    for (std::string line; std::getline(std::cin, line) && line != "quit";) {
        std::istringstream words(line);
        std::string command;
        std::string argument;
        std::string name;
        words >> command >> argument >> name;
        try {
            Obey(actor, command, argument, name);
            std::cout << "done " << line << std::endl;
        } catch (const std::runtime_error& error) {
            std::cout << "error " << error.what() << std::endl;
        }
    }
    std::_Exit(0);
}
