/// @file
/// The platform log: the one place where all of Pelmar's log lines go. Usable from C and C++.
#ifndef PELMAR_PLATFORM_LOG_H
#define PELMAR_PLATFORM_LOG_H

#include "pelmar-export.h"

#ifdef __cplusplus
extern "C" {
#endif

/// The log buffer that Pelmar writes to.
enum { PLATFORM_LOG_BUFFER_MAIN = 0 };

/// The priorities that Pelmar uses: debug for progress, error for failures. The default log also
/// knows what lies between them: 4 is info, 5 is warning, 7 is fatal.
enum { PLATFORM_LOG_DEBUG = 3, PLATFORM_LOG_ERROR = 6 };

/// Writes one line to the platform log; `format` and its arguments are as for printf.
///
/// A platform with a log of its own defines a function with this name and signature in its program;
/// it then replaces this one, whether the libraries are linked statically or shared. A replacement
/// is called from any thread that uses Pelmar, at times with the channel's lock held: it must not
/// call back into the channel.
///
/// The default writes a GLib structured log entry: its domain is `tag`, its level follows from
/// `priority`, `buffer` is not shown. It reaches journald where the process runs under it, and
/// standard error otherwise. Standard output is never used: the library tells GLib's default log
/// writer so when the program is loaded, for the whole process
/// (g_log_writer_default_set_use_stderr; a program that loads it later, with dlopen, calls that
/// itself at its start). Debug and info lines show only when G_MESSAGES_DEBUG names the tag (or is
/// "all"), and otherwise cost one look-up and no formatting. Newlines at the end of the text are
/// not shown.
///
/// Returns the number of bytes of the text that was handed on, 0 when the line was not shown.
PELMAR_API int platform_log_print(int buffer, int priority, const char* tag, const char* format,
                                  ...) __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
