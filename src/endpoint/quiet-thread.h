// Threads of the library: named, and left alone by the signals that are the application's.
// Internal.
#ifndef PELMAR_QUIET_THREAD_H
#define PELMAR_QUIET_THREAD_H

#include <csignal>

#include <pthread.h>

#include <thread>
#include <utility>

// `name` has at most 15 characters. Signals of the thread's own faults stay as they are.
template <typename Function>
std::thread QuietThread(const char* name, Function function)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
        sigdelset(&all, fault);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    struct Restore {
        ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
        const sigset_t& mask;
    } restore{before};
    std::thread thread(std::move(function));
    pthread_setname_np(thread.native_handle(), name);
    return thread;
}

#endif
