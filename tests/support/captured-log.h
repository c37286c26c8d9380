/// @file
/// The platform log of a test program that links captured-log.cpp: the lines are kept.
#ifndef PELMAR_TESTS_CAPTURED_LOG_H
#define PELMAR_TESTS_CAPTURED_LOG_H

#include <string>
#include <vector>

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

/// What has been logged so far, by any thread; errors alone, unless debug lines are asked for.
std::vector<LogLine> CapturedLog(bool with_debug = false);

/// How many errors contain `text`.
std::size_t ErrorsWith(const std::string& text);

#endif
