#include "process-info.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <sstream>

namespace {

bool EndsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string InProc(pid_t pid, const char* file)
{
    return "/proc/" + std::to_string(pid) + "/" + file;
}

bool IsNumber(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

std::optional<std::string> ReadTextFile(const std::string& name)
{
    std::ifstream file(name, std::ios::binary);
    if (!file)
        return std::nullopt;
    std::string text;
    std::array<char, 4096> buffer{};
    while (file.read(buffer.data(), buffer.size()) || file.gcount() > 0)
        text.append(buffer.data(), static_cast<std::size_t>(file.gcount()));
    if (file.bad())
        return std::nullopt;
    return text;
}

std::vector<std::string> CommandOf(pid_t pid)
{
    std::vector<std::string> words;
    std::istringstream line(ReadTextFile(InProc(pid, "cmdline")).value_or(""));
    for (std::string word; std::getline(line, word, '\0');)
        words.push_back(word);
    if (!words.empty())
        return words;
    std::string name = ReadTextFile(InProc(pid, "comm")).value_or("");
    if (name.empty())
        return {};
    name.pop_back();
    return {"[" + name + "]"};
}

std::string CommandLineOf(pid_t pid)
{
    std::string line;
    for (const std::string& word : CommandOf(pid))
        line += (line.empty() ? "" : " ") + word;
    return line;
}

// The innermost service or scope of its control group's path.
std::string UnitOf(pid_t pid)
{
    std::string unit;
    std::istringstream groups(ReadTextFile(InProc(pid, "cgroup")).value_or(""));
    for (std::string line; std::getline(groups, line);) {
        std::istringstream path(line);
        for (std::string part; std::getline(path, part, '/');) {
            if (EndsWith(part, ".service") || EndsWith(part, ".scope"))
                unit = part;
        }
    }
    return unit;
}

std::string UserName(uid_t uid)
{
    const passwd* entry = getpwuid(uid);
    return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

bool UserExists(const std::string& user)
{
    return IsNumber(user) || getpwnam(user.c_str()) != nullptr;
}

bool GroupExists(const std::string& group)
{
    return IsNumber(group) || getgrnam(group.c_str()) != nullptr;
}

Identity IdentityOf(uid_t uid)
{
    Identity identity{uid, UserName(uid), {}};
    const passwd* entry = getpwuid(uid);
    if (entry == nullptr)
        return identity;
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    while (getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count) < 0)
        groups.resize(static_cast<std::size_t>(count));
    groups.resize(static_cast<std::size_t>(count));
    for (const gid_t id : groups) {
        const group* found = getgrgid(id);
        identity.groups.push_back(found != nullptr ? found->gr_name : std::to_string(id));
    }
    return identity;
}
