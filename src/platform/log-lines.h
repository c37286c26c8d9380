// How Pelmar writes a log line. Internal. A source that logs defines PELMAR_LOG_FILE, its base
// name, before it includes this.
#ifndef PELMAR_LOG_LINES_H
#define PELMAR_LOG_LINES_H

#include "platform-log.h"

// A line's format is PELMAR_WHERE and a text; its first arguments are PELMAR_AT(function). Code
// that several callbacks share passes the callback's name on, so that the line names it.
#define PELMAR_WHERE "%s: %s(%d) > [%s:%d] "
#define PELMAR_AT(function) PELMAR_LOG_FILE, (function), __LINE__, (function), __LINE__
#define PELMAR_LOG(priority, ...) \
    platform_log_print(PLATFORM_LOG_BUFFER_MAIN, (priority), "kestrin", PELMAR_WHERE __VA_ARGS__)
#define PELMAR_DEBUG(...) PELMAR_LOG(PLATFORM_LOG_DEBUG, __VA_ARGS__)
#define PELMAR_ERROR(...) PELMAR_LOG(PLATFORM_LOG_ERROR, __VA_ARGS__)

#endif
