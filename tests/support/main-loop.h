/// @file
/// Running the main loop in a test: until a condition holds, never for a time.
#ifndef PELMAR_TESTS_MAIN_LOOP_H
#define PELMAR_TESTS_MAIN_LOOP_H

#include <glib.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>

#include "child-process.h"

/// Dispatches the default main context until `condition` holds. Throws std::runtime_error with
/// `awaited` in its text when it does not come to hold.
inline void IterateUntil(const std::function<bool()>& condition, const std::string& awaited)
{
    using std::chrono::milliseconds;
    bool expired = false;
    const auto expire = [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_CONTINUE;
    };
    const auto deadline = std::chrono::duration_cast<milliseconds>(TEST_DEADLINE).count();
    const guint timer = g_timeout_add(static_cast<guint>(deadline), expire, &expired);
    bool holds = condition();
    while (!holds && !expired) {
        g_main_context_iteration(nullptr, TRUE);
        holds = condition();
    }
    g_source_remove(timer);
    if (!holds)
        throw std::runtime_error("waited in vain for " + awaited);
}

/// Dispatches what is ready now, and what that makes ready, without waiting.
inline void DispatchPending()
{
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
}

#endif
