#include <glib.h>

#include <iostream>

#include "PTMutex.h"
#include "pelmar-dbus-local.h"

namespace {

class Service : public PelmarDbusLocal {
public:
    Service(const char* channel, GMainLoop* loop) : PelmarDbusLocal(channel), m_loop(loop) {}

    void HandleNotification(std::vector<char>& data) override
    {
        const PTAutoLock lock(m_own_mutex);
        std::cout << "received " << std::string(data.begin(), data.end()) << std::endl;
        g_main_loop_quit(m_loop);
    }

private:
    PTMutex m_own_mutex;
    GMainLoop* m_loop;
};

}  // namespace

// Serves until the first notification.
int RunService(const char* channel)
{
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    const Service service(channel, loop);
    std::cout << "listening" << std::endl;
    g_main_loop_run(loop);
    return 0;
}
