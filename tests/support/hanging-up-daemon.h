/// @file
/// A bus daemon that hangs up as soon as it has greeted, whoever calls and however often.
#ifndef PELMAR_TESTS_HANGING_UP_DAEMON_H
#define PELMAR_TESTS_HANGING_UP_DAEMON_H

#include <atomic>
#include <string>
#include <thread>

class HangingUpDaemon {
public:
    /// Answers at the address of the system bus from now on.
    HangingUpDaemon();
    ~HangingUpDaemon();
    HangingUpDaemon(const HangingUpDaemon&) = delete;
    HangingUpDaemon& operator=(const HangingUpDaemon&) = delete;

    int Calls() const { return m_calls; }

private:
    void Serve();

    int m_listening;
    std::atomic<int> m_calls{0};
    std::thread m_thread;
};

#endif
