// The command is the leader of a process group of its own, so that all it starts can be ended with
// it. It may be run by several threads at the same time.

#include "command-runner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

// Between being asked to end and being ended.
constexpr int GRACE_MS = 500;

constexpr std::size_t MOST_ERROR_BYTES = 64UL * 1024;
constexpr std::size_t LONGEST_ERROR_LINE = 500;

class Descriptor {
public:
    explicit Descriptor(int descriptor = -1) : m_descriptor(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~Descriptor() { Close(); }

    int Get() const { return m_descriptor; }
    bool IsOpen() const { return m_descriptor >= 0; }
    void Close()
    {
        if (IsOpen())
            close(std::exchange(m_descriptor, -1));
    }

private:
    int m_descriptor;
};

struct Pipe {
    Pipe()
    {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0)
            throw std::runtime_error(std::string("cannot make a pipe: ") + std::strerror(errno));
        read_end = Descriptor(ends[0]);
        write_end = Descriptor(ends[1]);
    }
    Descriptor read_end;
    Descriptor write_end;
};

// Becomes readable when the process has ended, and does not reap it. A pidfd would do the same, but
// not before Linux 5.3.
class ProcessEnd {
public:
    explicit ProcessEnd(pid_t process)
        : m_thread([this, process] {
              siginfo_t info = {};
              while (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOWAIT) != 0 &&
                     errno == EINTR) {
              }
              m_pipe.write_end.Close();
          })
    {
    }

    // Waits for that end.
    ~ProcessEnd() { m_thread.join(); }
    ProcessEnd(const ProcessEnd&) = delete;
    ProcessEnd& operator=(const ProcessEnd&) = delete;

    int Get() const { return m_pipe.read_end.Get(); }

private:
    Pipe m_pipe;
    std::thread m_thread;
};

class Run {
public:
    Run(const std::string& command, const Bytes& input, const CommandLimits& limits, int stop)
        : m_input(input), m_limits(limits), m_stop(stop), m_deadline(Clock::now() + limits.time)
    {
        Start(command);
    }

    ~Run()
    {
        if (m_pid > 0)
            Terminate();
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    CommandResult Finish()
    {
        m_process.emplace(m_pid);
        std::string fault;
        while (fault.empty() && !IsOver())
            fault = Step();
        if (!fault.empty())
            return {{}, fault};
        const std::string failure = Reap();
        return {failure.empty() ? std::move(m_output) : Bytes(), failure};
    }

private:
    void Start(const std::string& command)
    {
        Pipe input;
        Pipe output;
        Pipe errors;
        // Only async-signal-safe calls may follow the fork: there are other threads.
        const std::array<const char*, 4> arguments = {"sh", "-c", command.c_str(), nullptr};
        const pid_t parent = getpid();
        m_pid = fork();
        if (m_pid < 0)
            throw std::runtime_error(std::string("cannot start a process: ") +
                                     std::strerror(errno));
        if (m_pid == 0)
            BecomeCommand(arguments.data(), parent,
                          {input.read_end.Get(), output.write_end.Get(), errors.write_end.Get()});
        setpgid(m_pid, m_pid);
        m_in = std::move(input.write_end);
        m_out = std::move(output.read_end);
        m_err = std::move(errors.read_end);
        fcntl(m_in.Get(), F_SETFL, O_NONBLOCK);
    }

    [[noreturn]] static void BecomeCommand(const char* const* arguments, pid_t parent,
                                           const std::array<int, 3>& standard)
    {
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(126);
        for (const int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP})
            std::signal(signal, SIG_DFL);
        for (int descriptor = 0; descriptor < 3; ++descriptor)
            dup2(standard[static_cast<std::size_t>(descriptor)], descriptor);
        execv("/bin/sh", const_cast<char* const*>(arguments));
        _exit(127);
    }

    bool IsOver() const { return m_has_ended && !m_out.IsOpen(); }

    // Waits for the next thing to do, and does it. Returns what stops the command, if anything.
    std::string Step()
    {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(m_deadline - Clock::now()).count();
        const bool feeds = m_in.IsOpen() && m_written < m_input.size();
        if (!feeds)
            m_in.Close();
        std::array<pollfd, 5> watched = {pollfd{m_stop, POLLIN, 0}, pollfd{m_in.Get(), POLLOUT, 0},
                                         pollfd{m_out.Get(), POLLIN, 0},
                                         pollfd{m_err.Get(), POLLIN, 0},
                                         pollfd{m_has_ended ? -1 : m_process->Get(), POLLIN, 0}};
        poll(watched.data(), watched.size(), left > 0 ? static_cast<int>(left) : 0);
        if (watched[0].revents != 0)
            return "the command was stopped";
        if (Clock::now() >= m_deadline)
            return "the command took longer than " + std::to_string(m_limits.time.count()) + " ms";
        if (watched[1].revents != 0)
            Feed();
        if (watched[2].revents != 0)
            Drain(m_out, m_output, m_limits.output_bytes + 1);
        if (watched[3].revents != 0)
            Drain(m_err, m_errors, MOST_ERROR_BYTES);
        m_has_ended = m_has_ended || watched[4].revents != 0;
        return m_output.size() > m_limits.output_bytes
                   ? "the command wrote more than " + Count(m_limits.output_bytes, "byte")
                   : "";
    }

    // A command need not read its input.
    void Feed()
    {
        const ssize_t count =
            write(m_in.Get(), m_input.data() + m_written, m_input.size() - m_written);
        if (count > 0)
            m_written += static_cast<std::size_t>(count);
        else if (errno != EAGAIN && errno != EINTR)
            m_in.Close();
    }

    // What is beyond `most` is read and dropped.
    static void Drain(Descriptor& from, Bytes& to, std::size_t most)
    {
        std::array<char, 65536> buffer{};
        const ssize_t count = read(from.Get(), buffer.data(), buffer.size());
        if (count > 0) {
            const auto room = std::min(static_cast<std::size_t>(count), most - to.size());
            to.insert(to.end(), buffer.data(), buffer.data() + room);
        } else if (count == 0 || errno != EINTR) {
            from.Close();
        }
    }

    // Returns what is wrong with how it ended. What it left in the background ends too: its group
    // is still its own while it has not been reaped.
    std::string Reap()
    {
        siginfo_t info = {};
        waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT);
        ReadLastErrors();
        kill(-m_pid, SIGKILL);
        waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED);
        m_pid = -1;
        if (info.si_code == CLD_EXITED && info.si_status == 0)
            return {};
        const std::string how = info.si_code == CLD_EXITED
                                    ? "exit status " + std::to_string(info.si_status)
                                    : "ended by signal " + std::to_string(info.si_status);
        const std::string line = FirstErrorLine();
        return how + (line.empty() ? "" : ": " + line);
    }

    void ReadLastErrors()
    {
        for (;;) {
            pollfd readable{m_err.Get(), POLLIN, 0};
            if (!m_err.IsOpen() || poll(&readable, 1, 0) <= 0)
                return;
            Drain(m_err, m_errors, MOST_ERROR_BYTES);
        }
    }

    std::string FirstErrorLine() const
    {
        const auto end = std::find(m_errors.begin(), m_errors.end(), '\n');
        return Printable(std::string(m_errors.begin(), end)).substr(0, LONGEST_ERROR_LINE);
    }

    void Terminate()
    {
        kill(-m_pid, SIGTERM);
        if (m_process) {
            pollfd ended{m_process->Get(), POLLIN, 0};
            poll(&ended, 1, GRACE_MS);
        }
        kill(-m_pid, SIGKILL);
        m_process.reset();
        waitpid(m_pid, nullptr, 0);
    }

    const Bytes& m_input;
    const CommandLimits& m_limits;
    const int m_stop;
    const Clock::time_point m_deadline;

    pid_t m_pid = -1;
    std::optional<ProcessEnd> m_process;
    Descriptor m_in;
    Descriptor m_out;
    Descriptor m_err;
    std::size_t m_written = 0;
    bool m_has_ended = false;
    Bytes m_output;
    Bytes m_errors;
};

}  // namespace

CommandResult RunCommand(const std::string& command, const Bytes& input,
                         const CommandLimits& limits, int stop)
{
    try {
        return Run(command, input, limits, stop).Finish();
    } catch (const std::runtime_error& error) {
        return {{}, error.what()};
    }
}
