/// @file
/// How many descriptors and threads a process has, and taking the descriptors away from it.
#ifndef PELMAR_TESTS_PROCESS_RESOURCES_H
#define PELMAR_TESTS_PROCESS_RESOURCES_H

#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>

/// How many entries a folder of /proc/PID has; "fd" and "task" are of interest.
inline std::size_t CountOf(const std::string& what, pid_t pid = getpid())
{
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/" + what);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// While it lives, a process can open nothing; what is open stays so.
class NoDescriptors {
public:
    explicit NoDescriptors(pid_t pid = getpid()) : m_pid(pid)
    {
        rlimit none{};
        if (prlimit(m_pid, RLIMIT_NOFILE, nullptr, &m_before) != 0)
            throw std::runtime_error("prlimit");
        // With fewer poll would fail, too.
        none.rlim_cur = 3;
        none.rlim_max = m_before.rlim_max;
        prlimit(m_pid, RLIMIT_NOFILE, &none, nullptr);
    }
    ~NoDescriptors() { prlimit(m_pid, RLIMIT_NOFILE, &m_before, nullptr); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    const pid_t m_pid;
    rlimit m_before{};
};

#endif
