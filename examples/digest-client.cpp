// The client end of a channel: sends a file to the digest service, message by message, and checks
// each answer against its own digest.
//
// The channel carries the handshake, the notifications and the partner's loss. The messages are
// plain D-Bus calls of Send on the partner's object, made asynchronously, so that everything else
// is noticed while an answer is awaited.

#include <gio/gio.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "example-program.h"
#include "pelmar-dbus-local.h"

namespace {

constexpr gsize MESSAGE_SIZE = gsize{64} * 1024;
constexpr int MAX_TIMEOUT = 24 * 60 * 60;

constexpr const char* OBJECT_PATH = "/org/vaska/pelmar/CommunicationChannel/";
constexpr const char* INTERFACE = "org.vaska.pelmar.DbusCommunication";

constexpr const char* DESCRIPTION =
    "Waits for the digest service of the channel, sends it FILE in messages of 64 KiB and checks\n"
    "each answer. An empty file is sent as one empty message.\n"
    "\n"
    "Exit status:\n"
    "  0  every answer agrees\n"
    "  1  an answer differs, or a message was refused\n"
    "  2  the command line is wrong\n"
    "  3  FILE cannot be read\n"
    "  4  the system bus cannot be reached or was lost\n"
    "  5  no partner, answer or notification came within the timeout\n"
    "  6  the partner was lost midway\n"
    "  130, 143  ended by SIGINT, SIGTERM\n"
    "\n"
    "Environment: DBUS_SYSTEM_BUS_ADDRESS is the bus to use instead of the system's;\n"
    "G_MESSAGES_DEBUG=kestrin shows the channel's log on standard error.\n";

// A regular file, read piece by piece. What cannot be read ends the process or the program.
class InputFile {
public:
    InputFile(const ExampleProgram& program, const char* name) : m_name(name)
    {
        g_autoptr(GFile) file = g_file_new_for_commandline_arg(name);
        g_autoptr(GError) error = nullptr;
        g_autoptr(GFileInfo) info = g_file_query_info(
            file, G_FILE_ATTRIBUTE_STANDARD_TYPE "," G_FILE_ATTRIBUTE_STANDARD_SIZE,
            G_FILE_QUERY_INFO_NONE, nullptr, &error);
        if (info == nullptr)
            program.Exit(STATUS_FILE, Unreadable(error->message));
        if (g_file_info_get_file_type(info) != G_FILE_TYPE_REGULAR)
            program.Exit(STATUS_FILE, Unreadable("it is not a regular file"));
        m_size = static_cast<guint64>(g_file_info_get_size(info));
        m_stream = G_INPUT_STREAM(g_file_read(file, nullptr, &error));
        if (m_stream == nullptr)
            program.Exit(STATUS_FILE, Unreadable(error->message));
    }

    ~InputFile() { g_object_unref(m_stream); }

    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    const std::string& Name() const { return m_name; }
    guint64 Size() const { return m_size; }

    // The next piece; only at the end of the file shorter than a message, and empty after it.
    // False when the file cannot be read, and then `program` is ended.
    bool Read(ExampleProgram& program, std::vector<char>& data)
    {
        data.resize(MESSAGE_SIZE);
        gsize size = 0;
        g_autoptr(GError) error = nullptr;
        if (g_input_stream_read_all(m_stream, data.data(), data.size(), &size, nullptr, &error) ==
            FALSE) {
            program.Fail(STATUS_FILE, Unreadable(error->message));
            return false;
        }
        data.resize(size);
        return true;
    }

private:
    std::string Unreadable(const std::string& reason) const
    {
        return "cannot read '" + m_name + "': " + reason;
    }

    std::string m_name;
    guint64 m_size = 0;
    GInputStream* m_stream = nullptr;
};

// Lines on standard output, above a progress bar if that is a terminal.
class Output {
public:
    explicit Output(guint64 total) : m_total(total) {}
    ~Output() { Clear(); }

    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void Line(const std::string& text)
    {
        Clear();
        std::cout << text << std::endl;
        DrawBar();
    }

    void Progress(guint64 done)
    {
        m_done = done;
        DrawBar();
    }

private:
    void Clear()
    {
        if (m_terminal)
            std::cout << CLEAR_LINE << std::flush;
    }

    void DrawBar()
    {
        if (!m_terminal || m_done == 0)
            return;
        constexpr std::size_t width = 40;
        // The file may have grown since its size was read.
        const double part =
            std::min(1.0, static_cast<double>(m_done) / static_cast<double>(m_total));
        std::string bar(width, ' ');
        std::fill_n(bar.begin(), static_cast<std::size_t>(part * width), '#');
        std::cout << "\r[" << bar << "] " << static_cast<int>(part * 100) << " %" << std::flush;
    }

    guint64 m_total;
    guint64 m_done = 0;
    bool m_terminal = isatty(STDOUT_FILENO) != 0;
};

class DigestClient : public PelmarDbusLocal {
public:
    DigestClient(ExampleProgram& program, GDBusConnection* bus, InputFile& file, int timeout)
        : PelmarDbusLocal(program.Channel()),
          m_program(program),
          m_bus(bus),
          m_file(file),
          m_timeout(timeout),
          m_output(file.Size())
    {
        Await("partner on channel " + program.Channel());
    }

    // Called with the channel's lock held: it starts a call but waits for nothing.
    void HandleConnectionReady(bool state, const std::string& partner) override
    {
        if (state && m_service.empty()) {
            m_output.Line("partner " + partner + " is ready");
            m_service = partner;
            SendNext();
        } else if (!state && partner == m_service) {
            PartnerLost();
        }
    }

    void HandleNotification(std::vector<char>& data) override
    {
        ++m_notifications;
        m_output.Line("notification: " + std::string(data.begin(), data.end()));
        FinishIfComplete();
    }

private:
    void SendNext()
    {
        std::vector<char> data;
        if (!m_file.Read(m_program, data))
            return;
        if (data.empty() && m_messages > 0) {
            m_all_answered = true;
            Await("notification after the last message");
            FinishIfComplete();
            return;
        }
        ++m_messages;
        m_bytes += data.size();
        m_expected = Digest(data);
        GVariant* bytes =
            g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.data(), data.size(), 1);
        CallSend(g_variant_new_tuple(&bytes, 1));
    }

    // The call itself never gives up: the timeout is the program's.
    void CallSend(GVariant* parameters)
    {
        Await("answer to message " + std::to_string(m_messages));
        const std::string path = OBJECT_PATH + m_program.Channel();
        g_dbus_connection_call(m_bus, m_service.c_str(), path.c_str(), INTERFACE, "Send",
                               parameters, G_VARIANT_TYPE("(ay)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                               G_MAXINT, nullptr, cb_Answered, this);
    }

    static void cb_Answered(GObject* bus, GAsyncResult* result, gpointer user_data)
    {
        auto* self = static_cast<DigestClient*>(user_data);
        g_autoptr(GError) error = nullptr;
        g_autoptr(GVariant) reply =
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &error);
        if (reply == nullptr) {
            self->HandleRefusal(*error);
            return;
        }
        g_autoptr(GVariant) bytes = g_variant_get_child_value(reply, 0);
        gsize size = 0;
        const auto* text = static_cast<const char*>(g_variant_get_fixed_array(bytes, &size, 1));
        self->HandleAnswer(std::string(text, size));
    }

    void HandleAnswer(const std::string& answer)
    {
        if (answer != m_expected) {
            g_autofree gchar* shown = g_strescape(answer.substr(0, 100).c_str(), nullptr);
            m_program.Fail(STATUS_NO_AGREEMENT, "message " + std::to_string(m_messages) +
                                                    ": the answer is '" + shown + "' and not '" +
                                                    m_expected + "'");
            return;
        }
        m_output.Progress(m_bytes);
        SendNext();
    }

    void HandleRefusal(const GError& error)
    {
        // The daemon tells the caller and the watchers of a name that it is gone; either is first.
        const bool gone =
            error.domain == G_DBUS_ERROR &&
            (error.code == G_DBUS_ERROR_NO_REPLY || error.code == G_DBUS_ERROR_NAME_HAS_NO_OWNER ||
             error.code == G_DBUS_ERROR_SERVICE_UNKNOWN);
        if (gone)
            PartnerLost();
        else if (g_dbus_connection_is_closed(m_bus) == FALSE)  // else the program ends by that
            m_program.Fail(STATUS_NO_AGREEMENT, "message " + std::to_string(m_messages) +
                                                    " was refused: " + error.message);
    }

    void PartnerLost()
    {
        m_program.Fail(
            STATUS_PARTNER_LOST,
            "partner " + m_service + " was lost midway, at message " + std::to_string(m_messages));
    }

    // A notification follows each answer, so the last one may still be under way.
    void FinishIfComplete()
    {
        if (!m_all_answered || m_notifications < m_messages)
            return;
        m_output.Line(m_file.Name() + ": " + Count(m_bytes, "byte") + " in " +
                      Count(m_messages, "message") + ", every answer agrees");
        m_program.Finish(STATUS_OK);
    }

    // Ends the program unless the next thing is awaited within the timeout.
    void Await(const std::string& what)
    {
        if (m_timer != 0)
            g_source_remove(m_timer);
        m_awaited = what;
        m_timer = g_timeout_add_seconds(static_cast<guint>(m_timeout), cb_Timeout, this);
    }

    static gboolean cb_Timeout(gpointer user_data)
    {
        auto* self = static_cast<DigestClient*>(user_data);
        self->m_timer = 0;
        self->m_program.Fail(STATUS_TIMEOUT, "no " + self->m_awaited + " within " +
                                                 Count(guint64(self->m_timeout), "second"));
        return G_SOURCE_REMOVE;
    }

    ExampleProgram& m_program;
    GDBusConnection* m_bus;
    InputFile& m_file;
    int m_timeout;
    Output m_output;

    std::string m_service;   // the partner's unique bus name; empty: none yet
    std::string m_expected;  // the answer to the message under way
    std::string m_awaited;
    guint m_timer = 0;
    guint64 m_messages = 0;
    guint64 m_bytes = 0;
    guint64 m_notifications = 0;
    bool m_all_answered = false;
};

}  // namespace

int main(int argc, char** argv)
{
    int timeout = 30;
    ExampleProgram program(
        argc, argv, "FILE", DESCRIPTION,
        {{"timeout", 't', 0, G_OPTION_ARG_INT, &timeout,
          "How long to wait for the partner and for each answer (default: 30)", "SECONDS"}});
    if (argc != 2)
        program.Exit(
            STATUS_USAGE,
            std::string(argc < 2 ? "FILE is missing" : "only one FILE is sent") + " (see --help)");
    if (timeout < 1 || timeout > MAX_TIMEOUT)
        program.Exit(STATUS_USAGE, "a timeout of " + std::to_string(timeout) +
                                       " seconds is not possible: use 1 to " +
                                       std::to_string(MAX_TIMEOUT));
    InputFile file(program, argv[1]);
    GDBusConnection* bus = program.ConnectToBus();

    const DigestClient client(program, bus, file, timeout);
    return program.Run();
}
