// A service on sdbus-c++, by its convenience API.

#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>

#include "poll-loop.h"
#include "server.h"

int main(int argc, char** argv)
{
    using Data = std::vector<std::uint8_t>;
    const std::string path = names::Path(server::ChannelOf(argc, argv));
    const auto bus = sdbus::createSystemBusConnection();
    const auto object = sdbus::createObject(*bus, path);
    object->registerMethod("Send")
        .onInterface(names::INTERFACE)
        .implementedAs([](const Data& data) { return data; });
    object->finishRegistration();
    server::Say("serving " + bus->getUniqueName());

    std::vector<std::string> partners;
    const auto work = [&bus] {
        while (bus->processPendingRequest()) {
        }
        return bus->getEventLoopPollData().events;
    };
    const auto emit = [&](const std::string& partner, const server::Bytes& data) {
        auto signal = object->createSignal(names::INTERFACE, "SendSignal");
        signal.setDestination(partner);
        signal << Data(data.begin(), data.end());
        object->emitSignal(signal);
    };
    RunPollLoop(bus->getEventLoopPollData().fd, work, [&] { return server::Obey(partners, emit); });
}
