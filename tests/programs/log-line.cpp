// log-line PRIORITY TEXT: writes the text to the platform log, and "end" to standard output.

#include <cstdio>
#include <cstdlib>

#include "platform-log.h"

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fputs("usage: log-line PRIORITY TEXT\n", stderr);
        return 2;
    }
    platform_log_print(PLATFORM_LOG_BUFFER_MAIN, std::atoi(argv[1]), "kestrin", "%s", argv[2]);
    std::puts("end");
    return 0;
}
