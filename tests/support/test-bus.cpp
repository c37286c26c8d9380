#include "test-bus.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

std::string Configuration(const std::string& address, const std::string& limits)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n<type>system</type>\n<listen>" +
           address +
           "</listen>\n<auth>EXTERNAL</auth>\n<policy context=\"default\">\n"
           "<allow user=\"*\"/><allow own=\"*\"/><allow send_destination=\"*\" eavesdrop=\"true\"/>"
           "<allow eavesdrop=\"true\"/>\n</policy>\n" +
           limits + "\n</busconfig>\n";
}

}  // namespace

TestBus::TestBus(const std::string& limits)
{
    std::string folder = (std::filesystem::temp_directory_path() / "pelmar-bus-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr)
        throw std::runtime_error("mkdtemp: cannot make " + folder);
    m_folder = folder;
    m_address = "unix:path=" + m_folder + "/bus";
    std::ofstream(m_folder + "/bus.conf") << Configuration(m_address, limits);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
    Start();
}

TestBus::~TestBus()
{
    m_daemon.reset();
    std::filesystem::remove_all(m_folder);
}

void TestBus::Kill()
{
    m_daemon->Kill();
    unlink((m_folder + "/bus").c_str());
}

void TestBus::Start()
{
    m_daemon = std::make_unique<ChildProcess>(
        std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile", "--print-address=1",
                                 "--config-file=" + m_folder + "/bus.conf"});
    m_daemon->WaitForLine("unix:path=");
}

void TestBus::Settle(GDBusConnection* connection)
{
    // Not a ping: a stock system bus refuses that one.
    GVariant* reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (reply == nullptr)
        throw std::runtime_error("the bus does not answer");
    g_variant_unref(reply);
}
