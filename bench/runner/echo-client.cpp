#include "echo-client.h"

#include <unistd.h>

#include "frame.h"
#include "names.h"
#include "sd-handles.h"

namespace {

void CheckSize(std::size_t came, std::size_t sent)
{
    if (came != sent)
        throw std::runtime_error("an answer of " + std::to_string(came) + " bytes to " +
                                 std::to_string(sent) + " bytes");
}

class BusClient final : public EchoClient {
public:
    BusClient(const std::string& destination, const std::string& channel)
        : m_bus(OpenBus()), m_destination(destination), m_path(names::Path(channel))
    {
    }

    void Call(const Bytes& data) override
    {
        sd_bus_message* raw = nullptr;
        Checked(sd_bus_message_new_method_call(m_bus.get(), &raw, m_destination.c_str(),
                                               m_path.c_str(), names::INTERFACE.c_str(), "Send"),
                "making a call");
        const MessagePtr call(raw);
        Checked(sd_bus_message_append_array(call.get(), 'y', data.data(), data.size()),
                "making a call");
        sd_bus_error error{};
        sd_bus_message* raw_reply = nullptr;
        if (sd_bus_call(m_bus.get(), call.get(), 0, &error, &raw_reply) < 0) {
            const std::string text = error.message != nullptr ? error.message : "no reason given";
            sd_bus_error_free(&error);
            throw std::runtime_error("Send to " + m_destination + ": " + text);
        }
        const MessagePtr reply(raw_reply);
        const void* bytes = nullptr;
        std::size_t size = 0;
        Checked(sd_bus_message_read_array(reply.get(), 'y', &bytes, &size), "reading a reply");
        CheckSize(size, data.size());
    }

private:
    BusPtr m_bus;
    std::string m_destination;
    std::string m_path;
};

class SocketClient final : public EchoClient {
public:
    explicit SocketClient(const std::string& path) : m_peer(frame::Connect(path)) {}
    ~SocketClient() override { close(m_peer); }
    SocketClient(const SocketClient&) = delete;
    SocketClient& operator=(const SocketClient&) = delete;

    void Call(const Bytes& data) override
    {
        frame::Send(m_peer, data);
        if (!frame::Receive(m_peer, m_answer))
            throw std::runtime_error("the relay has gone");
        CheckSize(m_answer.size(), data.size());
    }

private:
    int m_peer;
    Bytes m_answer;
};

}  // namespace

std::unique_ptr<EchoClient> ClientOnTheBus(const std::string& destination,
                                           const std::string& channel)
{
    return std::make_unique<BusClient>(destination, channel);
}

std::unique_ptr<EchoClient> ClientOfSocket(const std::string& path)
{
    return std::make_unique<SocketClient>(path);
}
