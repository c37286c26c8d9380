// The service of docs/using.md: answers each message.

#include <unistd.h>

#include <iostream>
#include <string>

#include "pelmar-endpoint.h"

int main()
{
    PelmarEndpoint endpoint(PelmarEndpoint::Role::service, "hello");
    endpoint.OnReady([](const PelmarEndpoint::Partner& partner) {
        std::cout << partner.Name() << " is ready" << std::endl;
    });
    endpoint.OnMessage([](PelmarEndpoint::Message& message) {
        const std::string name(message.data.begin(), message.data.end());
        const std::string text = "Hello, " + name + "!";
        return PelmarEndpoint::Bytes(text.begin(), text.end());
    });
    endpoint.Start();
    pause();  // until it is ended: the endpoint has threads of its own
}
