// Both roles in one program.

#include <gtest/gtest.h>

#include "bus-actor.h"
#include "main-loop.h"
#include "role-user.h"
#include "test-bus.h"

namespace {

// What is said of one role: who makes its channel, and whose names it listens to and pulses.
struct Role {
    std::unique_ptr<AnyChannel> (*make)(const std::string& name);
    std::string own_side;
    std::string peer_side;
};

const Role SERVICE{MakeServiceChannel, "_SERVICE", "_CLIENT"};
const Role CLIENT{MakeClientChannel, "_CLIENT", "_SERVICE"};

TEST(AProgramWithBothRoles, PulsesAndListensToTheNamesOfEach)
{
    const TestBus bus;
    BusActor partner(bus);
    std::vector<std::unique_ptr<AnyChannel>> channels;
    for (const auto& [role, name] :
         {std::pair(SERVICE, std::string("served")), std::pair(CLIENT, std::string("used"))}) {
        const std::string base = "org.vaska.Pelmar." + name;
        const auto own_syn = partner.WatchOwner(base + role.own_side + "_SYN");
        channels.push_back(role.make(name));
        AnyChannel& channel = *channels.back();
        IterateUntil([&] { return own_syn->size() == 2; }, "the pulse of " + role.own_side);

        partner.Pulse(base + role.own_side + "_SYN_ACK");
        partner.Settle();
        DispatchPending();
        EXPECT_FALSE(channel.IsReady(partner.UniqueName())) << "by a pulse of its own side";
        partner.Pulse(base + role.peer_side + "_SYN_ACK");
        IterateUntil([&] { return channel.IsReady(partner.UniqueName()); },
                     "the partner of " + role.own_side);
    }
}

}  // namespace
