// The default platform log, on GLib's structured log. It stands alone in its library, and weak, so
// that a program's own platform_log_print takes its place in every kind of link.

#include "platform-log.h"

#include <glib.h>

#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <memory>

namespace {

struct Level {
    GLogLevelFlags flags;
    const char* syslog_priority;
};

// No priority maps to G_LOG_LEVEL_ERROR: GLib ends the process after such a line.
Level LevelOf(int priority)
{
    if (priority <= PLATFORM_LOG_DEBUG)
        return {G_LOG_LEVEL_DEBUG, "7"};
    if (priority == 4)
        return {G_LOG_LEVEL_INFO, "6"};
    if (priority == 5)
        return {G_LOG_LEVEL_WARNING, "4"};
    if (priority == PLATFORM_LOG_ERROR)
        return {G_LOG_LEVEL_CRITICAL, "3"};
    return {G_LOG_LEVEL_CRITICAL, "2"};
}

// Returns the length of what is left.
std::size_t CutTrailingNewlines(char* text)
{
    std::size_t length = std::strlen(text);
    while (length > 0 && text[length - 1] == '\n')
        text[--length] = '\0';
    return length;
}

// Debug and info lines would otherwise go to standard output, which belongs to the application.
// GLib takes the setting only before the first thread, hence while the program is being loaded.
__attribute__((constructor)) void KeepOffStandardOutput()
{
    g_log_writer_default_set_use_stderr(TRUE);
}

}  // namespace

extern "C" __attribute__((weak)) int platform_log_print(int /*buffer*/, int priority,
                                                        const char* tag, const char* format, ...)
{
    const Level level = LevelOf(priority);
    if (g_log_writer_default_would_drop(level.flags, tag) != FALSE)
        return 0;

    va_list arguments;
    va_start(arguments, format);
    const std::unique_ptr<char, decltype(&g_free)> text(g_strdup_vprintf(format, arguments),
                                                        g_free);
    va_end(arguments);
    const std::size_t length = CutTrailingNewlines(text.get());

    const GLogField fields[] = {
        {"MESSAGE", text.get(), -1},
        {"PRIORITY", level.syslog_priority, -1},
        {"GLIB_DOMAIN", tag, -1},
    };
    g_log_structured_array(level.flags, fields, G_N_ELEMENTS(fields));
    return static_cast<int>(length);
}
