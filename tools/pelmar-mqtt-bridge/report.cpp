#include "report.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace {

std::string& Head()
{
    static std::string head = "pelmar-mqtt-bridge: ";
    return head;
}

// The journal takes a line's priority from its start.
void Write(const char* journal_priority, const std::string& text)
{
    const bool journal = std::getenv("JOURNAL_STREAM") != nullptr && isatty(STDERR_FILENO) == 0;
    std::cerr << (journal ? journal_priority : "") + Head() + text + "\n" << std::flush;
}

}  // namespace

namespace report {

void SetChannel(const std::string& channel)
{
    Head() = "pelmar-mqtt-bridge[" + channel + "]: ";
}

void Info(const std::string& text)
{
    Write("<6>", text);
}

void Error(const std::string& text)
{
    Write("<3>", text);
}

}  // namespace report
