// The program's own platform log. What a user has to know of a failure the commands say themselves;
// the channel's and the endpoint's own lines are shown with -v.

#include "channel-log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>

#include "gio-handles.h"
#include "platform-log.h"

namespace {

std::atomic<bool> is_shown{false};

}  // namespace

void ShowChannelLog()
{
    is_shown = true;
}

extern "C" __attribute__((format(printf, 4, 5))) int platform_log_print(int /*buffer*/,
                                                                        int /*priority*/,
                                                                        const char* tag,
                                                                        const char* format, ...)
{
    if (!is_shown)
        return 0;
    va_list arguments;
    va_start(arguments, format);
    const std::unique_ptr<char, decltype(&g_free)> text(g_strdup_vprintf(format, arguments),
                                                        g_free);
    va_end(arguments);
    const std::string line(g_strchomp(text.get()));
    std::fprintf(stderr, "%s: %s\n", tag, line.c_str());
    return static_cast<int>(line.size());
}
