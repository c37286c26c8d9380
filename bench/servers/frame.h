/// @file
/// Messages over a stream socket: four bytes of length, and the bytes.
#ifndef PELMAR_BENCH_FRAME_H
#define PELMAR_BENCH_FRAME_H

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace frame {

using Bytes = std::vector<char>;

inline std::runtime_error Failure(const std::string& what)
{
    return std::runtime_error(what + ": " + std::strerror(errno));
}

inline sockaddr_un Address(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        throw std::runtime_error("the path of the socket is too long: " + path);
    path.copy(address.sun_path, path.size());
    return address;
}

inline int Connect(const std::string& path)
{
    const int peer = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = Address(path);
    if (connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        throw Failure("connect to " + path);
    return peer;
}

inline int Listen(const std::string& path)
{
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = Address(path);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, 1) != 0)
        throw Failure("listen on " + path);
    return listener;
}

inline bool ReadAll(int peer, char* to, std::size_t size)
{
    while (size > 0) {
        const ssize_t count = recv(peer, to, size, 0);
        if (count <= 0)
            return false;
        to += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

/// False when the other end has gone.
inline bool Receive(int peer, Bytes& data)
{
    std::uint32_t size = 0;
    if (!ReadAll(peer, reinterpret_cast<char*>(&size), sizeof(size)))
        return false;
    data.resize(size);
    return ReadAll(peer, data.data(), size);
}

inline void Send(int peer, const Bytes& data)
{
    auto size = static_cast<std::uint32_t>(data.size());
    iovec parts[] = {{&size, sizeof(size)}, {const_cast<char*>(data.data()), data.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    while (parts[1].iov_len > 0 || parts[0].iov_len > 0) {
        ssize_t count = sendmsg(peer, &message, MSG_NOSIGNAL);
        if (count < 0)
            throw Failure("send");
        for (iovec& part : parts) {
            const auto taken = std::min(static_cast<std::size_t>(count), part.iov_len);
            part.iov_base = static_cast<char*>(part.iov_base) + taken;
            part.iov_len -= taken;
            count -= static_cast<ssize_t>(taken);
        }
    }
}

}  // namespace frame

#endif
