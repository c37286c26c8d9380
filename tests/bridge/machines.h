/// @file
/// Two machines and a broker: two private buses, a real Mosquitto, and the programs on them.
#ifndef PELMAR_TESTS_MACHINES_H
#define PELMAR_TESTS_MACHINES_H

#include <memory>
#include <string>
#include <vector>

#include "child-process.h"
#include "test-bus.h"

/// Gives this process a network of its own, with loopback, where that is allowed: its ports are
/// then free. Once a process. False where it is not allowed.
bool HaveOwnNetwork();

/// Runs a command to its end; throws std::runtime_error when it fails.
void RunToEnd(const std::vector<std::string>& argv);

/// A folder that goes with its owner.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string File(const std::string& name) const { return m_path + "/" + name; }

    /// Writes a file that only its owner may read, and returns its path.
    std::string Write(const std::string& name, const std::string& text) const;

private:
    std::string m_path;
};

class Broker {
public:
    /// `settings` are lines for Mosquitto's configuration, besides the listener and its port. In a
    /// network of this process's own, where that is allowed.
    explicit Broker(const std::string& settings = "allow_anonymous true\n",
                    const std::string& address = "127.0.0.1");

    std::string Port() const { return std::to_string(m_port); }
    const std::string& Address() const { return m_address; }
    ChildProcess& Process() { return *m_process; }

    /// SIGKILL; Start brings it up again at the same port.
    void Kill() { m_process->Kill(); }
    void Start();

    /// Publishes with QoS 1 and returns when the broker has it. Properties are for mosquitto_pub's
    /// -D: "user-property kind request"; options are other ones of it.
    void Publish(const std::string& topic, const std::string& payload,
                 const std::vector<std::string>& properties,
                 const std::vector<std::string>& options = {}) const;

    /// Prints "TOPIC PAYLOAD" for each message that matches, among other lines. Has subscribed.
    std::unique_ptr<ChildProcess> Listen(const std::string& filter) const;

private:
    void StartOnce();

    TemporaryFolder m_folder;
    std::string m_settings;
    std::string m_address;
    int m_port = 0;
    std::unique_ptr<ChildProcess> m_process;
};

/// A program whose standard error comes as lines too.
class Program : public ChildProcess {
public:
    Program(const TestBus& bus, const std::vector<std::string>& argv);
};

/// The bridge.
class Bridge : public Program {
public:
    /// With a --host among the options, that is the broker's address to the bridge.
    Bridge(const TestBus& bus, const Broker& broker, const std::vector<std::string>& options,
           const std::vector<std::string>& launcher = {});

    /// A line of its channel "demo" that begins like this.
    void WaitFor(const std::string& text) { WaitForLine("pelmar-mqtt-bridge[demo]: " + text); }

    /// The counters, asked for now.
    std::string Counters();

    /// Asks until the counters contain the text. Throws std::runtime_error, with what they are
    /// instead.
    void WaitForCounters(const std::string& text);
};

/// An endpoint of the channel "demo" as a program (tests/programs/endpoint-peer.cpp).
class Peer : public Program {
public:
    Peer(const TestBus& bus, const std::string& role, const std::string& channel = "demo");

    /// The partner's name.
    std::string WaitUntilReady() { return WaitForLine("ready "); }
    void WaitUntilLost() { WaitForLine("lost "); }
};

#endif
