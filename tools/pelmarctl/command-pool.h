// Answers messages with what a shell command makes of them, a few at the same time, in threads of
// its own.
#ifndef PELMARCTL_COMMAND_POOL_H
#define PELMARCTL_COMMAND_POOL_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "command-runner.h"
#include "pelmar-endpoint.h"

class CommandPool {
public:
    // Told by one of the threads, after the answer.
    using Done = std::function<void(std::size_t size, const CommandResult& result)>;

    CommandPool(std::string command, const CommandLimits& limits, std::size_t threads, Done done);

    // Ends the commands that run; the messages that wait fail.
    ~CommandPool();
    CommandPool(const CommandPool&) = delete;
    CommandPool& operator=(const CommandPool&) = delete;

    // From any thread.
    void Submit(Bytes message, const PelmarEndpoint::Reply& reply);

private:
    struct Job {
        Bytes message;
        PelmarEndpoint::Reply reply;
    };

    void Work();
    void Answer(const Job& job) const;

    const std::string m_command;
    const CommandLimits m_limits;
    const Done m_done;
    const int m_stop;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Job> m_jobs;
    bool m_stopped = false;

    std::vector<std::thread> m_threads;
};

#endif
