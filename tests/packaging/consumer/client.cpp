#include <glib.h>

#include <iostream>

#include "pelmar-dbus-local.h"

#ifndef PELMAR_ROLE_CLIENT
#error "the client library's definition is missing"
#endif

namespace {

class Client : public PelmarDbusLocal {
public:
    Client(const char* channel, GMainLoop* loop) : PelmarDbusLocal(channel), m_loop(loop) {}

    void HandleConnectionReady(bool state, const std::string& partner) override
    {
        std::cout << partner << (state ? " is ready" : " is lost") << std::endl;
        std::vector<char> data{'h', 'e', 'l', 'l', 'o'};
        if (state)
            SendNotification(data, partner);
        else
            g_main_loop_quit(m_loop);
    }

private:
    GMainLoop* m_loop;
};

}  // namespace

// Sends one notification, and waits until the service is gone.
int RunClient(const char* channel)
{
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    const Client client(channel, loop);
    g_main_loop_run(loop);
    return 0;
}
