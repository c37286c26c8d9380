/// @file
/// A private bus daemon in the place of the system bus.
#ifndef PELMAR_TESTS_TEST_BUS_H
#define PELMAR_TESTS_TEST_BUS_H

#include <gio/gio.h>

#include <memory>
#include <string>

#include "child-process.h"

/// While it lives, DBUS_SYSTEM_BUS_ADDRESS names its daemon. The daemon lets everybody own, send
/// and receive everything, and dies with this process.
class TestBus {
public:
    /// `limits` is XML for the daemon's configuration, such as
    /// <limit name="max_match_rules_per_connection">8</limit>.
    explicit TestBus(const std::string& limits = "");
    ~TestBus();
    TestBus(const TestBus&) = delete;
    TestBus& operator=(const TestBus&) = delete;

    const std::string& Address() const { return m_address; }

    ChildProcess& Daemon() { return *m_daemon; }

    /// SIGKILL to the daemon. Start brings a new one up at the same address.
    void Kill();
    void Start();

    /// Returns when the daemon has dealt with everything that was sent on the connection before.
    static void Settle(GDBusConnection* connection);

private:
    std::string m_folder;
    std::string m_address;
    std::unique_ptr<ChildProcess> m_daemon;
};

#endif
