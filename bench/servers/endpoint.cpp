// The endpoint. Its notifications come from a thread of the application.

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "pelmar-endpoint.h"
#include "server.h"

namespace {

using Partner = PelmarEndpoint::Partner;

// Tells the one who sends when a window that was full has room again.
class Room {
public:
    void Add()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_times;
        m_changed.notify_all();
    }

    std::uint64_t Times() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_times;
    }

    void AwaitMoreThan(std::uint64_t times)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_times > times; });
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::uint64_t m_times = 0;
};

// A partner that goes is no longer waited for.
void NotifyWhenThereIsRoom(PelmarEndpoint& endpoint, Room& room, const Partner& partner,
                           const server::Bytes& data)
{
    for (;;) {
        const std::uint64_t times = room.Times();
        if (endpoint.Notify(partner, data) != PelmarEndpoint::Status::queue_full)
            return;
        room.AwaitMoreThan(times);
    }
}

void NotifyAll(PelmarEndpoint& endpoint, Room& room, const server::Bytes& data)
{
    for (const PelmarEndpoint::Missed& missed : endpoint.NotifyAll(data).missed) {
        if (missed.status == PelmarEndpoint::Status::queue_full)
            NotifyWhenThereIsRoom(endpoint, room, missed.partner, data);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string name = server::ChannelOf(argc, argv);
    const bool is_client = argc > 2 && std::string(argv[2]) == "client";
    Room room;
    server::Say("constructing " + server::Now());
    PelmarEndpoint endpoint(
        is_client ? PelmarEndpoint::Role::client : PelmarEndpoint::Role::service, name);
    endpoint.OnMessage(
        [](PelmarEndpoint::Message& message) { return server::Answer(message.data); });
    endpoint.OnReady([](const Partner& partner) {
        server::Say("ready " + server::Now() + " " + partner.Name());
    });
    endpoint.OnLost([&room](const Partner& partner) {
        server::Say("lost " + partner.Name());
        room.Add();
    });
    endpoint.OnRoom([&room](const Partner& /*partner*/) { room.Add(); });
    endpoint.Start();
    if (!endpoint.IsOnBus())
        server::Die(argv[0], "no bus");
    server::Say("serving " + endpoint.Name());
    for (;;) {
        const server::Order order = server::ReadOrder();
        if (order.kind == server::Order::Kind::end)
            return 0;
        for (unsigned i = 0; i < order.count; ++i)
            NotifyAll(endpoint, room, order.data);
    }
}
