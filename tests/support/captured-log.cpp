#include "captured-log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "platform-log.h"

namespace {

struct Log {
    std::mutex mutex;
    std::vector<LogLine> lines;
};

// Never destroyed: a thread may log while the program ends.
Log& TheLog()
{
    static Log& log = *new Log;
    return log;
}

}  // namespace

// Replaces the library's own. Errors are shown too, for the reader of a failed test.
extern "C" int platform_log_print(int /*buffer*/, int priority, const char* tag, const char* format,
                                  ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (priority >= PLATFORM_LOG_ERROR)
        std::fprintf(stderr, "%s: %s", tag, text);
    const std::lock_guard<std::mutex> lock(TheLog().mutex);
    TheLog().lines.push_back({priority, tag, text});
    return length;
}

std::vector<LogLine> CapturedLog(bool with_debug)
{
    const std::lock_guard<std::mutex> lock(TheLog().mutex);
    std::vector<LogLine> lines = TheLog().lines;
    if (!with_debug)
        lines.erase(
            std::remove_if(lines.begin(), lines.end(),
                           [](const LogLine& line) { return line.priority < PLATFORM_LOG_ERROR; }),
            lines.end());
    return lines;
}

std::size_t ErrorsWith(const std::string& text)
{
    const std::vector<LogLine> errors = CapturedLog();
    return static_cast<std::size_t>(std::count_if(
        errors.begin(), errors.end(),
        [&](const LogLine& line) { return line.text.find(text) != std::string::npos; }));
}
