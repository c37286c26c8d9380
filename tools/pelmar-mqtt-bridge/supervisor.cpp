#include "supervisor.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "exit-status.h"
#include "report.h"

namespace {

class Workers {
public:
    void Start(const CarriedChannel& channel,
               const std::function<int(const CarriedChannel&)>& carry)
    {
        const pid_t supervisor = getpid();
        const pid_t id = fork();
        if (id == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            // Not exit: what the supervisor has to do at its end is not the worker's.
            _exit(getppid() == supervisor ? carry(channel) : STATUS_FAILURE);
        }
        if (id < 0)
            Failed(STATUS_FAILURE, std::string("cannot start a process: ") + std::strerror(errno));
        else
            m_ids.push_back(id);
    }

    void Signal(int signal) const
    {
        for (const pid_t id : m_ids)
            kill(id, signal);
    }

    // Whoever has ended by now. The first failure is the supervisor's own.
    void Reap()
    {
        int status = 0;
        for (pid_t id = 0; (id = waitpid(-1, &status, WNOHANG)) > 0;) {
            m_ids.erase(std::remove(m_ids.begin(), m_ids.end(), id), m_ids.end());
            if (WIFSIGNALED(status))
                Failed(STATUS_FAILURE, "a channel's process was ended by signal " +
                                           std::to_string(WTERMSIG(status)));
            else if (WEXITSTATUS(status) != STATUS_OK)
                Failed(WEXITSTATUS(status), "");
        }
    }

    bool Empty() const { return m_ids.empty(); }
    int Status() const { return m_status; }

private:
    void Failed(int status, const std::string& text)
    {
        if (!text.empty())
            report::Error(text);
        if (m_status == STATUS_OK)
            m_status = status;
        Signal(SIGTERM);
    }

    std::vector<pid_t> m_ids;
    int m_status = STATUS_OK;
};

}  // namespace

sigset_t BlockSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGUSR1, SIGTERM, SIGINT, SIGCHLD})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int CarryEach(const std::vector<CarriedChannel>& channels,
              const std::function<int(const CarriedChannel&)>& carry)
{
    const sigset_t signals = BlockSignals();
    Workers workers;
    for (const CarriedChannel& channel : channels)
        workers.Start(channel, carry);
    while (!workers.Empty()) {
        int signal = 0;
        sigwait(&signals, &signal);
        if (signal == SIGCHLD)
            workers.Reap();
        else
            workers.Signal(signal);
    }
    return workers.Status();
}
