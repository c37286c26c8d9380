/// @file
/// How much memory a process has, as the kernel counts it.
#ifndef PELMAR_TESTS_PROCESS_MEMORY_H
#define PELMAR_TESTS_PROCESS_MEMORY_H

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <stdexcept>
#include <string>

constexpr std::size_t MIB = 1024UL * 1024;

// A sanitizer keeps memory of its own for everything that is allocated, and what was freed.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool MEMORY_IS_MEASURED = false;
#else
constexpr bool MEMORY_IS_MEASURED = true;
#endif

class ProcessMemory {
public:
    explicit ProcessMemory(pid_t pid = getpid()) : m_folder("/proc/" + std::to_string(pid)) {}

    std::size_t Resident() const { return Value("VmRSS:"); }

    /// The most since its start or the last ForgetPeak.
    std::size_t Peak() const { return Value("VmHWM:"); }
    void ForgetPeak() const { std::ofstream(m_folder + "/clear_refs") << "5"; }

private:
    std::size_t Value(const std::string& key) const
    {
        std::ifstream status(m_folder + "/status");
        std::string word;
        while (status >> word) {
            std::size_t kibibytes = 0;
            if (word == key && status >> kibibytes)
                return kibibytes * 1024;
        }
        throw std::runtime_error("no " + key + " of " + m_folder);
    }

    const std::string m_folder;
};

#endif
