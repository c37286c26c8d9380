#include "child-process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <future>
#include <stdexcept>
#include <utility>

namespace {

struct Pipe {
    Pipe()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
        read_end = ends[0];
        write_end = ends[1];
    }
    int read_end;
    int write_end;
};

std::vector<char*> Pointers(const std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (const std::string& string : strings)
        pointers.push_back(const_cast<char*>(string.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> MergedEnvironment(const ChildProcess::Environment& added)
{
    std::vector<std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        if (added.count(text.substr(0, text.find('='))) == 0)
            merged.push_back(text);
    }
    for (const auto& [name, value] : added)
        merged.push_back(name + "=" + value);
    return merged;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const Environment& environment)
{
    signal(SIGPIPE, SIG_IGN);
    const Pipe input;
    const Pipe output;
    // Only async-signal-safe calls may follow the fork: GLib may have started threads.
    const std::vector<std::string> merged = MergedEnvironment(environment);
    const std::vector<char*> arguments = Pointers(argv);
    const std::vector<char*> variables = Pointers(merged);
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid < 0)
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The kernel hangs up the whole process group of a stopped process.
        setsid();
        if (getppid() != parent)
            _exit(126);
        signal(SIGPIPE, SIG_DFL);
        dup2(input.read_end, STDIN_FILENO);
        dup2(output.write_end, STDOUT_FILENO);
        execvpe(arguments[0], arguments.data(), variables.data());
        _exit(127);
    }
    close(input.read_end);
    close(output.write_end);
    m_input = input.write_end;
    m_output = output.read_end;
}

ChildProcess::~ChildProcess()
{
    Kill();
    CloseInput();
    close(m_output);
}

void ChildProcess::WriteLine(const std::string& line)
{
    const std::string text = line + "\n";
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(m_input, text.data() + written, text.size() - written);
        if (count < 0)
            throw std::runtime_error("writing '" + line + "' to a child: " + std::strerror(errno));
        written += static_cast<std::size_t>(count);
    }
}

void ChildProcess::CloseInput()
{
    if (m_input >= 0)
        close(m_input);
    m_input = -1;
}

std::string ChildProcess::WaitForLine(const std::string& prefix)
{
    const auto deadline = std::chrono::steady_clock::now() + TEST_DEADLINE;
    std::string seen;
    while (const std::optional<std::string> line = ReadLine(deadline)) {
        if (line->compare(0, prefix.size(), prefix) == 0)
            return line->substr(prefix.size());
        seen += "\n  " + *line;
    }
    throw std::runtime_error("waited for a line that starts with '" + prefix + "'; came:" + seen);
}

std::vector<std::string> ChildProcess::ComeLines()
{
    while (ReadSome(0)) {
    }
    std::vector<std::string> lines;
    while (std::optional<std::string> line = TakeLine())
        lines.push_back(std::move(*line));
    return lines;
}

std::optional<std::string> ChildProcess::TakeLine()
{
    const std::size_t end = m_unread.find('\n');
    if (end == std::string::npos)
        return std::nullopt;
    std::string line = m_unread.substr(0, end);
    m_unread.erase(0, end + 1);
    return line;
}

std::optional<std::string> ChildProcess::ReadLine(std::chrono::steady_clock::time_point deadline)
{
    for (;;) {
        if (std::optional<std::string> line = TakeLine())
            return line;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !ReadSome(static_cast<int>(left.count())))
            return std::nullopt;
    }
}

// False when nothing came in time, or nothing will.
bool ChildProcess::ReadSome(int timeout_ms)
{
    pollfd ready{m_output, POLLIN, 0};
    if (poll(&ready, 1, timeout_ms) <= 0)
        return false;
    char buffer[4096];
    const ssize_t count = read(m_output, buffer, sizeof(buffer));
    if (count <= 0)
        return false;
    m_unread.append(buffer, static_cast<std::size_t>(count));
    return true;
}

void ChildProcess::Signal(int signal) const
{
    if (!m_running)
        return;
    kill(m_pid, signal);
    // Its threads stop one after the other, and so it could still answer.
    if (signal == SIGSTOP)
        WaitUntilStopped();
}

void ChildProcess::WaitUntilStopped() const
{
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(m_pid), &info, WSTOPPED | WEXITED | WNOWAIT);
}

int ChildProcess::WaitForEnd()
{
    // By a thread and not by a pidfd, which valgrind does not know.
    const auto end = std::async(std::launch::async, [pid = static_cast<id_t>(m_pid)] {
        siginfo_t info = {};
        waitid(P_PID, pid, &info, WEXITED | WNOWAIT);
    });
    if (end.wait_for(TEST_DEADLINE) != std::future_status::ready) {
        Kill();
        throw std::runtime_error("waited in vain for the end of process " + std::to_string(m_pid));
    }
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_running = false;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

void ChildProcess::Kill()
{
    if (!m_running)
        return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_running = false;
}
