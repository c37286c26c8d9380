// The endpoint. Its notifications come from a thread of the application.

#include "patient-notifier.h"
#include "pelmar-endpoint.h"
#include "server.h"

using Partner = PelmarEndpoint::Partner;

int main(int argc, char** argv)
{
    const std::string name = server::ChannelOf(argc, argv);
    const bool is_client = argc > 2 && std::string(argv[2]) == "client";
    server::Say("constructing " + server::Now());
    PelmarEndpoint endpoint(
        is_client ? PelmarEndpoint::Role::client : PelmarEndpoint::Role::service, name);
    PatientNotifier notifier(endpoint);
    endpoint.OnMessage(
        [](PelmarEndpoint::Message& message) { return server::Answer(message.data); });
    endpoint.OnReady([](const Partner& partner) {
        server::Say("ready " + server::Now() + " " + partner.Name());
    });
    endpoint.OnLost([&notifier](const Partner& partner) {
        server::Say("lost " + partner.Name());
        notifier.LookAgain();
    });
    endpoint.Start();
    if (!endpoint.IsOnBus())
        server::Die(argv[0], "no bus");
    server::Say("serving " + endpoint.Name());
    for (;;) {
        const server::Order order = server::ReadOrder();
        if (order.kind == server::Order::Kind::end)
            return 0;
        for (unsigned i = 0; i < order.count; ++i)
            notifier.NotifyAll(order.data);
    }
}
