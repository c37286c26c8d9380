/// @file
/// What the peers have in common: programs of which each speaks one technology at both ends, as
/// plainly as that allows. The application owns its bytes, as a vector, at either end.
///
///   peer-TECHNOLOGY ROLE ADDRESS [OPTION]
///
/// ADDRESS is a name on the bus, or the path of a socket. "ready" says that the others may come, or
/// that this one has joined them. Roles:
///
///   server     answers each request with what Answer makes of it
///   client     in:  request SIZE SECONDS CALLS    for so long, and so many times at least
///              out: took NS NS ...                each round trip
///   publisher  in:  notify COUNT SIZE RECEIVERS   as soon as so many have joined
///   receiver   out: received COUNT NS             with the last of an order; NS is the monotonic
///                                                 clock
///
/// The end of its input ends a client and a publisher. The others are killed.
#ifndef PELMAR_BENCH_PEER_H
#define PELMAR_BENCH_PEER_H

#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "server.h"

namespace peer {

using server::Answer;
using server::Bytes;
using server::Die;
using server::Say;

inline long long Nanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

/// `request` takes the bytes and puts the answer into their place.
template <typename Request>
std::vector<long long> TimeRequests(Request request, std::size_t size, double seconds,
                                    std::size_t calls)
{
    std::vector<long long> took;
    Bytes data(size, 'r');
    const long long started = Nanoseconds();
    const long long end = started + static_cast<long long>(seconds * 1e9);
    for (long long before = started; before < end || took.size() < calls;) {
        request(data);
        const long long after = Nanoseconds();
        if (data.size() != size)
            Die("request", "an answer of " + std::to_string(data.size()) + " bytes");
        took.push_back(after - before);
        before = after;
    }
    return took;
}

template <typename Request>
void RunClient(Request request)
{
    Say("ready");
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string order;
        std::size_t size = 0;
        double seconds = 0;
        std::size_t calls = 0;
        words >> order >> size >> seconds >> calls;
        std::string answer = "took";
        for (const long long nanoseconds : TimeRequests(request, size, seconds, calls))
            answer += " " + std::to_string(nanoseconds);
        Say(answer);
    }
}

/// The first byte of the last notification of an order; the others begin with another one.
constexpr char LAST = 'l';

/// `await` returns when so many have joined, `notify` sends to all of them, and `flush` returns
/// when what was sent is on its way.
template <typename Await, typename Notify, typename Flush>
void RunPublisher(Await await, Notify notify, Flush flush)
{
    Say("ready");
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string order;
        std::size_t count = 0;
        std::size_t size = 0;
        std::size_t receivers = 0;
        words >> order >> count >> size >> receivers;
        await(receivers);
        Bytes data(size, 'n');
        for (std::size_t i = 1; i < count; ++i)
            notify(data);
        data.front() = LAST;
        notify(data);
        flush();
    }
}

/// Counts what a receiver gets.
class Tally {
public:
    void Add(const Bytes& data)
    {
        ++m_count;
        if (data.front() != LAST)
            return;
        Say("received " + std::to_string(m_count) + " " + std::to_string(Nanoseconds()));
        m_count = 0;
    }

private:
    std::size_t m_count = 0;
};

struct Arguments {
    std::string address;
    std::string option;
};

using Roles = std::map<std::string, std::function<void(const Arguments& arguments)>>;

/// Plays the role that the command line names; what is thrown ends the program with its reason.
inline int Run(int argc, char** argv, const Roles& roles)
{
    const auto role = argc > 2 ? roles.find(argv[1]) : roles.end();
    if (role == roles.end())
        Die(argv[0], "usage: ROLE ADDRESS [OPTION]");
    try {
        role->second({argv[2], argc > 3 ? argv[3] : ""});
    } catch (const std::exception& exception) {
        Die(argv[0], exception.what());
    }
    return 0;
}

}  // namespace peer

#endif
