// Answers each message with a greeting, and prints who comes and goes.

#include <glib.h>

#include <iostream>

#include "pelmar-dbus-local.h"

class Greeter : public PelmarDbusLocal {
public:
    Greeter() : PelmarDbusLocal("greeter") {}

    std::vector<char> HandleMessage(std::vector<char>& data) override
    {
        const std::string text = "Hello, " + std::string(data.begin(), data.end()) + "!";
        return {text.begin(), text.end()};
    }

    void HandleNotification(std::vector<char>& data) override
    {
        std::cout << "a notification of " << data.size() << " bytes" << std::endl;
    }

    void HandleConnectionReady(bool state, const std::string& partner) override
    {
        std::cout << partner << (state ? " is ready" : " is lost") << std::endl;
    }
};

int main()
{
    const Greeter greeter;
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
