#include "example-program.h"

#include <glib-unix.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <iostream>

namespace {

// A channel's name goes into bus names, which may have 255 characters, and into an object path.
bool IsChannelName(const char* name)
{
    return g_regex_match_simple("^[A-Za-z_][A-Za-z0-9_]{0,221}\\z", name, GRegexCompileFlags(0),
                                GRegexMatchFlags(0)) != FALSE;
}

}  // namespace

ExampleProgram::ExampleProgram(int& argc, char**& argv, const char* arguments,
                               const char* description, std::vector<GOptionEntry> own_options)
    : m_name(argv[0]), m_loop(g_main_loop_new(nullptr, FALSE))
{
    setlocale(LC_ALL, "");
    m_name.erase(0, m_name.find_last_of('/') + 1);

    g_autofree gchar* option = nullptr;
    own_options.push_back({"channel", 'c', 0, G_OPTION_ARG_STRING, &option,
                           "The channel's name, the same at both ends (default: digest)", "NAME"});
    own_options.push_back({});

    g_autoptr(GOptionContext) context = g_option_context_new(arguments);
    g_option_context_set_description(context, description);
    g_option_context_add_main_entries(context, own_options.data(), nullptr);
    g_autoptr(GError) error = nullptr;
    if (g_option_context_parse(context, &argc, &argv, &error) == FALSE)
        Exit(STATUS_USAGE, std::string(error->message) + " (see --help)");
    m_channel = option != nullptr ? option : "digest";
    if (!IsChannelName(m_channel.c_str()))
        Exit(STATUS_USAGE, "'" + m_channel +
                               "' cannot be a channel's name: use 1 to 222 letters, digits and "
                               "underscores, and no digit at the start");
}

ExampleProgram::~ExampleProgram()
{
    g_clear_object(&m_bus);
    g_main_loop_unref(m_loop);
}

GDBusConnection* ExampleProgram::ConnectToBus()
{
    g_autoptr(GError) error = nullptr;
    m_bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (m_bus == nullptr)
        Exit(STATUS_BUS,
             std::string("cannot reach the system bus: ") + error->message +
                 " (is it running, and is DBUS_SYSTEM_BUS_ADDRESS right if it is set?)");
    // The shared connection would otherwise end the process by SIGTERM when the bus goes.
    g_dbus_connection_set_exit_on_close(m_bus, FALSE);
    g_signal_connect(m_bus, "closed", G_CALLBACK(cb_Closed), this);
    g_unix_signal_add(SIGINT, cb_Interrupted, this);
    g_unix_signal_add(SIGTERM, cb_Terminated, this);
    return m_bus;
}

int ExampleProgram::Run()
{
    if (!m_finished)
        g_main_loop_run(m_loop);
    return m_status;
}

void ExampleProgram::Finish(int status)
{
    if (m_finished)
        return;
    m_finished = true;
    m_status = status;
    g_main_loop_quit(m_loop);
}

void ExampleProgram::Fail(ExitStatus status, const std::string& text)
{
    if (!m_finished)
        Complain(text);
    Finish(status);
}

void ExampleProgram::Exit(ExitStatus status, const std::string& text) const
{
    Complain(text);
    std::exit(status);
}

void ExampleProgram::Complain(const std::string& text) const
{
    std::cerr << (isatty(STDERR_FILENO) != 0 ? CLEAR_LINE : "") << m_name << ": " << text
              << std::endl;
}

gboolean ExampleProgram::cb_Interrupted(gpointer user_data)
{
    static_cast<ExampleProgram*>(user_data)->Finish(STATUS_SIGNAL + SIGINT);
    return G_SOURCE_CONTINUE;
}

gboolean ExampleProgram::cb_Terminated(gpointer user_data)
{
    static_cast<ExampleProgram*>(user_data)->Finish(STATUS_SIGNAL + SIGTERM);
    return G_SOURCE_CONTINUE;
}

void ExampleProgram::cb_Closed(GDBusConnection* /*connection*/, gboolean /*remote_peer_vanished*/,
                               GError* error, gpointer user_data)
{
    const std::string reason = error != nullptr ? std::string(": ") + error->message : "";
    static_cast<ExampleProgram*>(user_data)->Fail(STATUS_BUS,
                                                  "the connection to the bus was lost" + reason);
}

std::string Digest(const std::vector<char>& data)
{
    g_autofree gchar* sha256 = g_compute_checksum_for_data(
        G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(data.data()), data.size());
    return std::to_string(data.size()) + " " + sha256;
}

std::string Count(guint64 number, const std::string& thing)
{
    return std::to_string(number) + " " + thing + (number == 1 ? "" : "s");
}
