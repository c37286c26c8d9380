/// @file
/// The servers under measurement, as processes.
#ifndef PELMAR_BENCH_SERVER_PROCESS_H
#define PELMAR_BENCH_SERVER_PROCESS_H

#include <memory>
#include <string>
#include <vector>

#include "child-process.h"
#include "echo-client.h"

/// Seconds on the clock that all processes share.
double Now();

/// Seconds of processor time that a process has used so far.
double ProcessorSeconds(pid_t process);

/// How often all threads of a process have waited so far: its voluntary context switches.
double Waits(pid_t process);

/// Pages that a process has touched for the first time so far.
double PageFaults(pid_t process);

/// Bytes of memory that a process shares with no other.
double PrivateBytes(pid_t process);

/// One kind of server: the program and how it is called.
struct ServerKind {
    std::string name;
    std::string program;
    std::vector<std::string> options;
    bool on_the_bus;     ///< or on a socket of its own
    bool has_handshake;  ///< it has to find its partners; others are told of them
};

/// All kinds whose program was built.
const std::vector<ServerKind>& ServerKinds();
const ServerKind& KindNamed(const std::string& name);

/// Those of them with these names; all when there are no names.
std::vector<ServerKind> KindsNamed(const std::vector<std::string>& names);

/// A running server. `wrapper` is put before its command, for what runs programs under inspection.
class ServerProcess {
public:
    ServerProcess(const ServerKind& kind, std::string channel,
                  const std::vector<std::string>& wrapper = {});

    const ServerKind& Kind() const { return m_kind; }
    const std::string& Channel() const { return m_channel; }

    /// Its unique bus name; empty for one that does not tell.
    const std::string& Name() const { return m_name; }
    ChildProcess& Process() { return m_process; }
    double ProcessorSeconds() const { return ::ProcessorSeconds(m_process.Pid()); }

    /// The moment right before it began to construct its channel.
    double Constructing() const { return m_constructing; }

    /// Waits until it has a ready partner more, and returns when that was.
    double WaitForReady();
    void WaitForLost() { m_process.WaitForLine("lost "); }

    std::unique_ptr<EchoClient> NewClient() const;

private:
    ServerKind m_kind;
    std::string m_channel;
    ChildProcess m_process;
    double m_constructing = 0;
    std::string m_name;
};

#endif
