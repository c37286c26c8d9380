// The service end of a channel: answers each message with its size and SHA-256, and then tells all
// partners how much it has received so far.

#include <glib.h>

#include <iostream>
#include <string>
#include <vector>

#include "example-program.h"
#include "pelmar-dbus-local.h"

namespace {

constexpr const char* DESCRIPTION =
    "Answers each message of the channel with its size and SHA-256, and after each one sends all\n"
    "partners a notification with the running total. Runs until SIGINT or SIGTERM.\n"
    "\n"
    "Exit status:\n"
    "  0  ended by SIGINT or SIGTERM\n"
    "  2  the command line is wrong\n"
    "  4  the system bus cannot be reached or was lost\n"
    "\n"
    "Environment: DBUS_SYSTEM_BUS_ADDRESS is the bus to use instead of the system's;\n"
    "G_MESSAGES_DEBUG=kestrin shows the channel's log on standard error.\n";

class DigestService : public PelmarDbusLocal {
public:
    explicit DigestService(const std::string& channel) : PelmarDbusLocal(channel) {}

    std::vector<char> HandleMessage(std::vector<char>& data) override
    {
        ++m_messages;
        m_bytes += data.size();
        const std::string answer = Digest(data);
        std::cout << "message " << m_messages << ": " << answer << std::endl;
        // The answer leaves when this function returns, and the total after it: the high priority
        // keeps the next message from coming in between.
        g_idle_add_full(G_PRIORITY_HIGH, cb_SendTotal, this, nullptr);
        return {answer.begin(), answer.end()};
    }

    void HandleConnectionReady(bool state, const std::string& partner) override
    {
        std::cout << "partner " << partner << (state ? " is ready" : " is lost") << std::endl;
    }

private:
    static gboolean cb_SendTotal(gpointer user_data)
    {
        auto* self = static_cast<DigestService*>(user_data);
        const std::string total =
            Count(self->m_bytes, "byte") + " in " + Count(self->m_messages, "message");
        std::vector<char> data(total.begin(), total.end());
        self->SendNotification(data);
        return G_SOURCE_REMOVE;
    }

    guint64 m_messages = 0;
    guint64 m_bytes = 0;
};

}  // namespace

int main(int argc, char** argv)
{
    ExampleProgram program(argc, argv, nullptr, DESCRIPTION, {});
    if (argc > 1)
        program.Exit(STATUS_USAGE,
                     std::string("unexpected argument '") + argv[1] + "' (see --help)");
    program.ConnectToBus();

    const DigestService service(program.Channel());
    std::cout << "listening on channel " << program.Channel() << std::endl;
    const int status = program.Run();
    // To be told to end is how a service ends.
    return status > STATUS_SIGNAL ? STATUS_OK : status;
}
