/// @file
/// A child process with a line protocol on its standard streams. It dies with its parent.
#ifndef PELMAR_TESTS_CHILD_PROCESS_H
#define PELMAR_TESTS_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "setting.h"

/// How long a test waits for anything before it gives up and says what it was waiting for. Under
/// valgrind everything takes longer.
inline const std::chrono::seconds TEST_DEADLINE{Setting("PELMAR_TEST_DEADLINE", 20)};

class ChildProcess {
public:
    using Environment = std::map<std::string, std::string>;

    /// Starts `argv`, with `environment` added to the caller's. Standard error is inherited.
    explicit ChildProcess(const std::vector<std::string>& argv,
                          const Environment& environment = {});

    /// Kills the process if it still runs, and reaps it.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return m_pid; }

    /// False once its end has been waited for.
    bool Runs() const { return m_running; }

    void WriteLine(const std::string& line);
    void CloseInput();

    /// The next line that starts with `prefix`, without the prefix; lines before it are passed
    /// over. Throws std::runtime_error, saying what was awaited and what came instead.
    std::string WaitForLine(const std::string& prefix);

    /// The lines that have come, without waiting for more. To wait, poll OutputDescriptor.
    std::vector<std::string> ComeLines();
    int OutputDescriptor() const { return m_output; }

    void Signal(int signal) const;

    /// Returns when the process, which has been sent or sends itself a SIGSTOP, has stopped or
    /// ended.
    void WaitUntilStopped() const;

    /// Waits until the process has ended. Returns its exit status, or minus the signal's number.
    int WaitForEnd();

    /// SIGKILL, and reaps.
    void Kill();

private:
    std::optional<std::string> TakeLine();
    std::optional<std::string> ReadLine(std::chrono::steady_clock::time_point deadline);
    bool ReadSome(int timeout_ms);

    pid_t m_pid = -1;
    int m_input = -1;
    int m_output = -1;
    std::string m_unread;
    bool m_running = true;
};

#endif
