// How a command ends other than well.
#ifndef PELMARCTL_FAILURE_H
#define PELMARCTL_FAILURE_H

#include <stdexcept>
#include <string>

// The exit statuses; they are part of the manual page.
enum class Exit : int {
    ok = 0,
    failure = 1,
    usage = 2,
    no_partner = 3,
    timeout = 4,
    refused = 5,
    bus = 6,
    remote = 7,
    too_large = 8,
};

// Its text is for standard error.
class Failure : public std::runtime_error {
public:
    Failure(Exit code, const std::string& text) : std::runtime_error(text), m_code(code) {}
    Exit Code() const { return m_code; }

private:
    Exit m_code;
};

// Somebody asked the program to end.
struct Interrupted {
    int signal;
};

#endif
