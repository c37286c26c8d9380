// A descriptor that it takes long to close.
#ifndef PELMAR_LINGERING_SOCKET_H
#define PELMAR_LINGERING_SOCKET_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <stdexcept>

#include "descriptor.h"

// A connection of which not all that was written has arrived, and whose last close waits for that.
class LingeringSocket {
public:
    LingeringSocket()
    {
        const Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        Check(bind(listener.Number(), generic, size));
        Check(listen(listener.Number(), 1));
        Check(getsockname(listener.Number(), generic, &size));
        m_socket = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        Check(connect(m_socket.Number(), generic, size));
        m_other_end = Descriptor(accept4(listener.Number(), nullptr, nullptr, SOCK_CLOEXEC));
        const std::array<char, 65536> bytes{};
        while (send(m_socket.Number(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
        }
        const linger long_enough{1, 60};
        Check(
            setsockopt(m_socket.Number(), SOL_SOCKET, SO_LINGER, &long_enough, sizeof long_enough));
    }
    // Without waiting, as nobody else holds it then.
    ~LingeringSocket()
    {
        const linger none{};
        if (m_socket.IsOpen())
            setsockopt(m_socket.Number(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    }
    LingeringSocket(const LingeringSocket&) = delete;
    LingeringSocket& operator=(const LingeringSocket&) = delete;

    int Number() const { return m_socket.Number(); }
    int Release() { return m_socket.Release(); }

    // Far less than it lingers, and far more than anything else takes.
    template <typename Function>
    static bool IsQuick(const Function& function)
    {
        const auto start = std::chrono::steady_clock::now();
        function();
        return std::chrono::steady_clock::now() - start < std::chrono::seconds(30);
    }

    // Returns when the last that held it has closed it.
    void AwaitItsEnd() const
    {
        std::array<char, 65536> bytes{};
        while (recv(m_other_end.Number(), bytes.data(), bytes.size(), 0) > 0) {
        }
    }

private:
    static void Check(int result)
    {
        if (result != 0)
            throw std::runtime_error("no socket that lingers");
    }

    Descriptor m_socket;
    Descriptor m_other_end;
};

#endif
