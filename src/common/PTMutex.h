/// @file
/// The POSIX mutex and its scoped lock. Header only; needs nothing but POSIX threads.
#ifndef PELMAR_PTMUTEX_H
#define PELMAR_PTMUTEX_H

#include <pthread.h>

/// One POSIX mutex with default attributes. It is not recursive: a thread that locks it twice waits
/// for itself. Unlock it in the thread that locked it, and before it is destroyed.
class PTMutex {
public:
    PTMutex() { pthread_mutex_init(&m_mutex, nullptr); }
    ~PTMutex() { pthread_mutex_destroy(&m_mutex); }
    PTMutex(const PTMutex&) = delete;
    PTMutex& operator=(const PTMutex&) = delete;

    /// Waits until the mutex is free and takes it.
    void Lock() { pthread_mutex_lock(&m_mutex); }

    /// Takes the mutex if it is free. True when it was taken; never waits.
    bool TryLock() { return pthread_mutex_trylock(&m_mutex) == 0; }

    /// Gives the mutex up.
    void Unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex;
};

/// Holds a PTMutex from its construction to its destruction, also when an exception ends the scope.
class PTAutoLock {
public:
    explicit PTAutoLock(PTMutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~PTAutoLock() { m_mutex.Unlock(); }
    PTAutoLock(const PTAutoLock&) = delete;
    PTAutoLock& operator=(const PTAutoLock&) = delete;

private:
    PTMutex& m_mutex;
};

#endif
