/// @file
/// What the bridge's tests start from: two machines, none of the programs yet.
#ifndef PELMAR_TESTS_ACROSS_MACHINES_H
#define PELMAR_TESTS_ACROSS_MACHINES_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "machines.h"

class AcrossMachines : public testing::Test {
public:
    // Ready at both ends: the bridge has seen the client's last pulse when it answers its call.
    static std::string WaitUntilWhole(Peer& client)
    {
        const std::string bridge = client.WaitUntilReady();
        client.WriteLine("send " + bridge + " 0102");
        EXPECT_EQ("0201", client.WaitForLine("reply "));
        return bridge;
    }

protected:
    AcrossMachines() = default;
    explicit AcrossMachines(const std::string& settings, const std::string& address = "127.0.0.1")
        : m_broker(settings, address)
    {
    }

    Bridge Attach(const TestBus& bus, std::vector<std::string> options = {})
    {
        options.insert(options.begin(), {"--attach", "demo"});
        return Bridge(bus, m_broker, options);
    }
    Bridge Offer(const TestBus& bus, std::vector<std::string> options = {})
    {
        options.insert(options.begin(), {"--offer", "demo"});
        return Bridge(bus, m_broker, options);
    }

    TestBus m_bus_a;
    TestBus m_bus_b;
    Broker m_broker;
};

#endif
