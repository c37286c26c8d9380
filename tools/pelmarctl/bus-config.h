// A bus daemon's configuration, read from its files as the daemon reads it: who may own which name
// and send what, and the limits. What belongs to other services is read and not judged.
#ifndef PELMARCTL_BUS_CONFIG_H
#define PELMARCTL_BUS_CONFIG_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "bus.h"
#include "process-info.h"

struct PolicyRule {
    bool allows;
    std::map<std::string, std::string> attributes;
    int line;

    bool Has(const char* attribute) const { return attributes.count(attribute) != 0; }
    std::string Get(const char* attribute) const;
};

struct PolicySection {
    // In the order in which they count: what comes later overrules what came before.
    enum class Context { by_default, group, user, console, mandatory };

    Context context = Context::by_default;
    std::string account;  // the user or the group
    std::vector<PolicyRule> rules;
    std::string file;
    int line = 0;

    bool AccountExists() const;
    // "user 'svc'", "group 'svc'", "everybody".
    std::string Who() const;
    bool Mentions(const std::string& channel) const;
};

// What a policy is asked about. A message goes to a partner by its unique name.
struct PolicyQuestion {
    static PolicyQuestion Own(const std::string& name);
    static PolicyQuestion Send(const std::string& channel);      // the method
    static PolicyQuestion Signal(const std::string& channel);    // SendSignal
    static PolicyQuestion OpenPath(const std::string& channel);  // a direct path

    std::string own;
    std::string type;
    std::string path;
    std::string interface;
    std::string member;
};

struct BusConfig {
    std::vector<std::string> files;
    std::vector<PolicySection> sections;
    std::map<std::string, std::size_t> limits;
    std::vector<std::string> faults;  // what could not be read, with file and line

    bool Allows(const Identity& identity, const PolicyQuestion& question) const;

    // Those that the files mention.
    std::set<std::string> Channels() const;

    // What dbus-daemon takes where its files say nothing.
    std::size_t Limit(const std::string& name, std::size_t otherwise) const;
};

// Follows what the file includes. An empty name is an empty configuration.
BusConfig ReadBusConfig(const std::string& file);

// The file alone.
BusConfig ReadBusConfigFile(const std::string& file);

// The daemon at the other end of the connection.
struct Daemon {
    std::optional<pid_t> pid;
    std::string program;      // "dbus-daemon", or empty
    std::string config_file;  // empty: not to be found out
};
Daemon DaemonOf(Bus& bus);
std::string ConfigFileOf(Bus& bus);

#endif
