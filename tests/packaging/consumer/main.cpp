// Both roles in one program, and a platform log of its own: consumer service|client CHANNEL
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform-log.h"

int RunService(const char* channel);
int RunClient(const char* channel);

extern "C" int platform_log_print(int /*buffer*/, int /*priority*/, const char* tag,
                                  const char* format, ...)
{
    std::fprintf(stderr, "own log, %s: ", tag);
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    return length;
}

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    return std::strcmp(argv[1], "service") == 0 ? RunService(argv[2]) : RunClient(argv[2]);
}
