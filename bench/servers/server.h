/// @file
/// What the servers under measurement have in common. Each is one program that answers `Send` with
/// the bytes it was sent, and is as plain as its library allows.
///
///   serve-LIBRARY CHANNEL [OPTION]
///
///   in:  notify COUNT SIZE    emits COUNT times SIZE bytes to every partner
///        partner NAME         a partner, for the servers that have no handshake to find it by
///   out: constructing NS      what follows it is the library's work; NS is the monotonic clock
///        serving NAME         on the bus as NAME, and all calls are answered from now on
///        ready NS NAME, lost NAME    what a channel tells of its partners
///
/// The end of its input ends it.
#ifndef PELMAR_BENCH_SERVER_H
#define PELMAR_BENCH_SERVER_H

#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>
#include <vector>

#include "names.h"

namespace server {

using Bytes = std::vector<char>;

/// The application, for the libraries that let it own the bytes: an answer without a copy.
inline Bytes Answer(Bytes& data)
{
    return std::move(data);
}

inline void Say(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

inline std::string Now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::to_string(now.tv_sec * 1'000'000'000LL + now.tv_nsec);
}

[[noreturn]] inline void Die(const std::string& what, const std::string& reason)
{
    std::fprintf(stderr, "%s: %s\n", what.c_str(), reason.c_str());
    std::exit(1);
}

/// One order on standard input. Orders come one at a time, so that one read takes one whole.
struct Order {
    enum class Kind { notify, partner, end };
    Kind kind = Kind::end;
    unsigned count = 0;
    Bytes data;
    std::string partner;
};

inline Order ReadOrder()
{
    char line[256];
    const ssize_t length = read(STDIN_FILENO, line, sizeof(line));
    Order order;
    if (length <= 0)
        return order;
    std::istringstream words(std::string(line, static_cast<std::size_t>(length)));
    std::string name;
    words >> name;
    if (name == "partner") {
        order.kind = Order::Kind::partner;
        words >> order.partner;
    } else if (name == "notify") {
        std::size_t size = 0;
        order.kind = Order::Kind::notify;
        words >> order.count >> size;
        order.data.assign(size, 'n');
    }
    return order;
}

/// What the servers without a channel do with their orders: `emit` sends bytes to one partner.
/// False when the server is to end.
template <typename Emit>
bool Obey(std::vector<std::string>& partners, Emit emit)
{
    const Order order = ReadOrder();
    if (order.kind == Order::Kind::partner) {
        partners.push_back(order.partner);
        Say("known " + order.partner);
    }
    for (unsigned i = 0; i < order.count; ++i) {
        for (const std::string& partner : partners)
            emit(partner, order.data);
    }
    return order.kind != Order::Kind::end;
}

inline std::string ChannelOf(int argc, char** argv)
{
    if (argc < 2)
        Die(argv[0], "usage: CHANNEL [OPTION]");
    return argv[1];
}

/// Serves the channel; what is thrown ends the program with its reason.
inline void Run(int argc, char** argv, void (*serve)(const std::string& channel))
{
    try {
        serve(ChannelOf(argc, argv));
    } catch (const std::exception& exception) {
        Die(argv[0], exception.what());
    }
}

}  // namespace server

#endif
