// An endpoint of either role, without a header of GLib's: endpoint service|client CHANNEL
#include "pelmar-endpoint.h"

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <string>

namespace {

PelmarEndpoint::Bytes BytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

// Serves until the client is lost.
int RunService(const std::string& channel)
{
    std::mutex mutex;
    std::condition_variable changed;
    bool over = false;
    PelmarEndpoint endpoint(PelmarEndpoint::Role::service, channel);
    endpoint.OnMessage([](const PelmarEndpoint::Message& message) {
        std::cout << "received " << std::string(message.data.begin(), message.data.end())
                  << std::endl;
        return BytesOf("thanks");
    });
    endpoint.OnLost([&](const PelmarEndpoint::Partner& /*partner*/) {
        const std::lock_guard<std::mutex> lock(mutex);
        over = true;
        changed.notify_all();
    });
    endpoint.Start();
    std::cout << "listening" << std::endl;
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&over] { return over; });
    return 0;
}

int RunClient(const std::string& channel)
{
    using std::chrono::seconds;
    PelmarEndpoint endpoint(PelmarEndpoint::Role::client, channel);
    endpoint.Start();
    const auto deadline = std::chrono::steady_clock::now() + seconds(20);
    const auto partner = endpoint.WaitForPartner(deadline);
    if (!partner)
        return 1;
    const auto response = endpoint.Request(*partner, BytesOf("hello"), seconds(20));
    std::cout << "answered " << std::string(response.data.begin(), response.data.end())
              << std::endl;
    return response.status == PelmarEndpoint::Status::ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    return std::string(argv[1]) == "service" ? RunService(argv[2]) : RunClient(argv[2]);
}
