// The service of docs/using.md: answers each message.

#include <unistd.h>

#include <iostream>
#include <string>

#include "pelmar-endpoint.h"

int main()
{
    PelmarEndpoint::Handlers handlers;
    handlers.ready = [](const std::string& partner) {
        std::cout << partner << " is ready" << std::endl;
    };
    handlers.message = [](PelmarEndpoint::Bytes& data) {
        const std::string text = "Hello, " + std::string(data.begin(), data.end()) + "!";
        return PelmarEndpoint::Bytes(text.begin(), text.end());
    };
    const PelmarEndpoint endpoint("hello", handlers);
    pause();  // until it is ended: the endpoint has a thread of its own
}
