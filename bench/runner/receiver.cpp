#include "receiver.h"

#include <poll.h>

#include <algorithm>
#include <array>

#include "names.h"

namespace {

constexpr const char* DAEMON = "org.freedesktop.DBus";
constexpr std::uint64_t PATIENCE_US = 20'000'000;

// Nobody calls Send; but the object and its interface are there.
const sd_bus_vtable OBJECT[] = {SD_BUS_VTABLE_START(0), SD_BUS_VTABLE_END};

int SetWhenReleased(sd_bus_message* signal, void* user_data, sd_bus_error* /*error*/)
{
    const char* name = nullptr;
    const char* old_owner = nullptr;
    const char* new_owner = nullptr;
    Checked(sd_bus_message_read(signal, "sss", &name, &old_owner, &new_owner), "reading a pulse");
    if (*new_owner == '\0')
        *static_cast<bool*>(user_data) = true;
    return 0;
}

}  // namespace

void Pulse(sd_bus* bus, const std::string& name)
{
    constexpr std::uint64_t do_not_queue = 0;
    Checked(sd_bus_request_name(bus, name.c_str(), do_not_queue), "acquiring " + name);
    Checked(sd_bus_release_name(bus, name.c_str()), "releasing " + name);
}

Receiver::Receiver() : m_bus(OpenBus())
{
    const char* name = nullptr;
    Checked(sd_bus_get_unique_name(m_bus.get(), &name), "asking for the own name");
    m_name = name;
}

void Receiver::Join(ServerProcess& server)
{
    if (server.Kind().has_handshake) {
        Checked(
            sd_bus_add_object_vtable(m_bus.get(), nullptr, names::Path(server.Channel()).c_str(),
                                     names::INTERFACE.c_str(), OBJECT, nullptr),
            "exporting the object");
        ShakeHands(server.Channel());
        AnswerUntilReady(server.Process());
    } else {
        server.Process().WriteLine("partner " + m_name);
        server.Process().WaitForLine("known " + m_name);
    }
}

void Receiver::ShakeHands(const std::string& channel)
{
    const std::string syn_ack = names::Own(channel, names::SYN_ACK);
    bool shown = false;
    sd_bus_slot* raw_slot = nullptr;
    const std::string match = std::string("type='signal',sender='") + DAEMON +
                              "',member='NameOwnerChanged',arg0='" + syn_ack + "'";
    Checked(sd_bus_add_match(m_bus.get(), &raw_slot, match.c_str(), SetWhenReleased, &shown),
            "watching " + syn_ack);
    const SlotPtr slot(raw_slot);
    Pulse(m_bus.get(), names::Peer(channel, names::SYN));
    while (!shown)
        Process();
    Pulse(m_bus.get(), names::Peer(channel, names::ACK));
}

void Receiver::AnswerUntilReady(ChildProcess& server)
{
    const auto is_ready = [](const std::string& line) { return line.rfind("ready ", 0) == 0; };
    constexpr int turn_ms = 100;
    for (const double deadline = Now() + PATIENCE_US * 1e-6; Now() < deadline;) {
        while (Checked(sd_bus_process(m_bus.get(), nullptr), "answering the server") > 0) {
        }
        const std::vector<std::string> lines = server.ComeLines();
        if (std::any_of(lines.begin(), lines.end(), is_ready))
            return;
        std::array<pollfd, 2> inputs = {
            {{sd_bus_get_fd(m_bus.get()), POLLIN, 0}, {server.OutputDescriptor(), POLLIN, 0}}};
        poll(inputs.data(), inputs.size(), turn_ms);
    }
    throw std::runtime_error("waited in vain for the server to be ready with " + m_name);
}

// One message at most; waits when there is none. Returns whether it was a notification.
bool Receiver::Process()
{
    sd_bus_message* raw = nullptr;
    if (Checked(sd_bus_process(m_bus.get(), &raw), "reading from the bus") == 0 &&
        Checked(sd_bus_wait(m_bus.get(), PATIENCE_US), "waiting for the bus") == 0)
        throw std::runtime_error("waited in vain for the bus to bring " + m_name + " something");
    const MessagePtr message(raw);
    return raw != nullptr &&
           sd_bus_message_is_signal(raw, names::INTERFACE.c_str(), "SendSignal") > 0;
}

void Receiver::Await(unsigned count)
{
    while (m_received < count)
        m_received += Process() ? 1 : 0;
    m_received -= count;
}
