/// @file
/// One end of a channel as a process, plain or an endpoint, that starts when it is told to: for
/// many ends that start at the same moment.
#ifndef PELMAR_TESTS_CHANNEL_END_H
#define PELMAR_TESTS_CHANNEL_END_H

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "child-process.h"

class ChannelEnd {
public:
    enum class Kind { plain, endpoint };

    /// `role` is "service" or "client". The process has started when this returns, its channel has
    /// not.
    ChannelEnd(Kind kind, const std::string& role) : m_process(Program(kind, role))
    {
        m_process.WaitForLine("waiting");
    }

    /// Constructs the channel.
    void Go() { m_process.WriteLine("go"); }

    /// A command of the program.
    void Tell(const std::string& command) { m_process.WriteLine(command); }

    /// Ends the process by SIGKILL.
    void Kill() { m_process.Kill(); }

    /// Takes in what has come, without waiting.
    void ReadNews()
    {
        for (const std::string& line : m_process.ComeLines()) {
            if (line.compare(0, 6, "ready ") == 0)
                m_ready.insert(line.substr(6));
            if (line.compare(0, 5, "lost ") == 0)
                m_ready.erase(line.substr(5));
            if (line.compare(0, 13, "notification ") == 0)
                m_notifications.insert(line.substr(13));
        }
    }

    /// The partners that are ready, as of the last ReadNews.
    std::size_t Ready() const { return m_ready.size(); }

    /// The payloads of the notifications that have come, in hexadecimal.
    const std::set<std::string>& Notifications() const { return m_notifications; }

    int OutputDescriptor() const { return m_process.OutputDescriptor(); }

private:
    static std::vector<std::string> Program(Kind kind, const std::string& role)
    {
        if (kind == Kind::endpoint)
            return {PELMAR_ENDPOINT_PEER, role, "storm", "--wait"};
        return {role == "service" ? PELMAR_PEER_SERVICE : PELMAR_PEER_CLIENT, "storm", "--wait"};
    }

    ChildProcess m_process;
    std::set<std::string> m_ready;
    std::set<std::string> m_notifications;
};

/// A service and the clients that storm it.
class Storm {
public:
    using Kind = ChannelEnd::Kind;

    struct Result {
        std::size_t at_service = 0;  ///< clients that are ready at the service
        std::size_t at_clients = 0;  ///< clients at which the service is ready
        double seconds = 0;          ///< until the last of them was
    };

    Storm(Kind service, const std::vector<Kind>& clients)
        : m_kind(service), m_service(std::make_unique<ChannelEnd>(service, "service"))
    {
        for (const Kind kind : clients)
            m_clients.push_back(std::make_unique<ChannelEnd>(kind, "client"));
    }

    ChannelEnd& Service() { return *m_service; }
    ChannelEnd& Client(std::size_t index) { return *m_clients.at(index); }

    /// All start at the same moment. The result is there when all are ready at both ends, or when
    /// nothing new has come for long.
    Result Start()
    {
        m_service->Go();
        for (const auto& client : m_clients)
            client->Go();
        return Watch();
    }

    /// The service is killed and, when all clients know of its end, started again, as a supervisor
    /// restarts a service.
    Result RestartService()
    {
        auto successor = std::make_unique<ChannelEnd>(m_kind, "service");
        m_service->Kill();
        m_service = std::move(successor);
        Await([this] { return ReadyClients() == 0; });
        m_service->Go();
        return Watch();
    }

    /// Takes in what the processes say until the condition holds, or nothing new has come for long.
    /// Returns whether it holds.
    bool Await(const std::function<bool()>& condition)
    {
        constexpr int patience_ms = 6000;
        while (!condition()) {
            std::vector<pollfd> outputs{{m_service->OutputDescriptor(), POLLIN, 0}};
            for (const auto& client : m_clients)
                outputs.push_back({client->OutputDescriptor(), POLLIN, 0});
            if (poll(outputs.data(), outputs.size(), patience_ms) <= 0)
                return false;
            m_service->ReadNews();
            for (const auto& client : m_clients)
                client->ReadNews();
        }
        return true;
    }

private:
    using Clock = std::chrono::steady_clock;

    std::size_t ReadyClients() const
    {
        return static_cast<std::size_t>(
            std::count_if(m_clients.begin(), m_clients.end(),
                          [](const auto& client) { return client->Ready() != 0; }));
    }

    Result Watch()
    {
        const auto start = Clock::now();
        Result result;
        Await([&] {
            if (m_service->Ready() != result.at_service || ReadyClients() != result.at_clients)
                result = {m_service->Ready(), ReadyClients(),
                          std::chrono::duration<double>(Clock::now() - start).count()};
            return result.at_service == m_clients.size() && result.at_clients == m_clients.size();
        });
        return result;
    }

    Kind m_kind;
    std::unique_ptr<ChannelEnd> m_service;
    std::vector<std::unique_ptr<ChannelEnd>> m_clients;
};

#endif
