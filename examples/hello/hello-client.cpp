// The client of docs/using.md: sends its name to the service and prints the answer.

#include <unistd.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "pelmar-endpoint.h"

int main()
{
    PelmarEndpoint endpoint(PelmarEndpoint::Role::client, "hello");
    endpoint.Start();

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    const auto partner = endpoint.WaitForPartner(deadline);
    if (!partner) {
        std::cerr << "no service on channel hello within a minute" << std::endl;
        return 1;
    }

    const std::string name = "client";
    const PelmarEndpoint::Response response = endpoint.Request(
        *partner, PelmarEndpoint::Bytes(name.begin(), name.end()), std::chrono::seconds(10));
    if (response.status != PelmarEndpoint::Status::ok) {
        std::cerr << PelmarEndpoint::ToString(response.status) << ": " << response.error
                  << std::endl;
        return 1;
    }
    std::cout << "the service answers: " << std::string(response.data.begin(), response.data.end())
              << std::endl;
    // The way past the bus is agreed on once both are ready, and takes a moment.
    for (int i = 0; i < 100 && !partner->IsDirect(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::cout << "they go " << (partner->IsDirect() ? "past the bus" : "by the bus") << std::endl;
    pause();
}
