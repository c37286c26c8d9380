// What the digest service and the digest client share besides the channel: the command line, the
// bus connection, the main loop with every way to end it, and the digest.
#ifndef PELMAR_EXAMPLE_PROGRAM_H
#define PELMAR_EXAMPLE_PROGRAM_H

#include <gio/gio.h>

#include <string>
#include <vector>

enum ExitStatus {
    STATUS_OK = 0,
    STATUS_NO_AGREEMENT = 1,
    STATUS_USAGE = 2,
    STATUS_FILE = 3,
    STATUS_BUS = 4,
    STATUS_TIMEOUT = 5,
    STATUS_PARTNER_LOST = 6,
    STATUS_SIGNAL = 128,  // plus the signal's number
};

// Takes a progress bar off a terminal's line.
constexpr const char* CLEAR_LINE = "\r\033[K";

class ExampleProgram {
public:
    // Parses the options: --help, --channel and the program's own. `arguments` and `description`
    // are for the help text. Leaves what is not an option in argc and argv, and ends the process
    // with STATUS_USAGE when an option is wrong.
    ExampleProgram(int& argc, char**& argv, const char* arguments, const char* description,
                   std::vector<GOptionEntry> own_options);
    ~ExampleProgram();

    ExampleProgram(const ExampleProgram&) = delete;
    ExampleProgram& operator=(const ExampleProgram&) = delete;

    const std::string& Channel() const { return m_channel; }

    // Prepares the connection that the channel will share; to be called before the channel is made.
    // Ends the process with STATUS_BUS when the bus cannot be reached. From here on SIGINT, SIGTERM
    // and the loss of the bus end Run.
    GDBusConnection* ConnectToBus();

    // Runs the main loop until the first Finish and returns its status.
    int Run();
    void Finish(int status);

    // Finish with a line on standard error. Once something has ended the program, later failures
    // are its consequences and are not reported.
    void Fail(ExitStatus status, const std::string& text);

    // The same before there is a main loop.
    [[noreturn]] void Exit(ExitStatus status, const std::string& text) const;

private:
    static gboolean cb_Interrupted(gpointer user_data);
    static gboolean cb_Terminated(gpointer user_data);
    static void cb_Closed(GDBusConnection* connection, gboolean remote_peer_vanished, GError* error,
                          gpointer user_data);

    void Complain(const std::string& text) const;

    std::string m_name;
    std::string m_channel;
    GDBusConnection* m_bus = nullptr;
    GMainLoop* m_loop;
    bool m_finished = false;
    int m_status = STATUS_OK;
};

// "SIZE SHA256": the size in bytes, decimal, and the SHA-256, hexadecimal.
std::string Digest(const std::vector<char>& data);

// "1 message", "2 messages".
std::string Count(guint64 number, const std::string& thing);

#endif
