// What /proc and the user database say of a process.
#ifndef PELMARCTL_PROCESS_INFO_H
#define PELMARCTL_PROCESS_INFO_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

// The words of its command line; its name in brackets where that is empty; empty where there is
// nothing to be read.
std::vector<std::string> CommandOf(pid_t pid);
std::string CommandLineOf(pid_t pid);

// The systemd unit that it runs in; empty: none.
std::string UnitOf(pid_t pid);

std::string UserName(uid_t uid);

// Whether the bus would find the account that a policy names.
bool UserExists(const std::string& user);
bool GroupExists(const std::string& group);

// A user with the groups that count for a policy.
struct Identity {
    std::optional<uid_t> uid;
    std::string user;
    std::vector<std::string> groups;
};
Identity IdentityOf(uid_t uid);

// The whole of a small file; nothing when it cannot be read, and then errno says why.
std::optional<std::string> ReadTextFile(const std::string& name);

#endif
