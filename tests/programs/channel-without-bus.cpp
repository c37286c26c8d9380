// A channel that finds no bus, and so logs an error. With OWN_LOG the program is its own platform
// log and writes the lines to standard output.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "pelmar-dbus-local.h"
#include "platform-log.h"

#ifdef OWN_LOG
int platform_log_print(int buffer, int priority, const char* tag, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::printf("own log: %d %d %s ", buffer, priority, tag);
    const int length = std::vprintf(format, arguments);
    va_end(arguments);
    return length;
}
#endif

int main()
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    const PelmarDbusLocal channel("demo");
    std::puts("end");
    return 0;
}
