#include "precedence.h"

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace {

constexpr int HIGHEST = -20;

bool g_taken = false;

void RaiseSession(const std::string& process)
{
    std::ofstream session("/proc/" + process + "/autogroup");
    session << HIGHEST << std::flush;
}

}  // namespace

bool TakePrecedence()
{
    setsid();
    RaiseSession("self");
    g_taken = setpriority(PRIO_PROCESS, 0, HIGHEST) == 0;
    return g_taken;
}

void GivePrecedenceTo(pid_t child)
{
    if (g_taken)
        RaiseSession(std::to_string(child));
}
