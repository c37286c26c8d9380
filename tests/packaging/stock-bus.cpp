#include "stock-bus.h"

#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace {

std::string ErrorText()
{
    return std::strerror(errno);
}

std::string ContentOf(const std::string& path)
{
    const std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void MountOver(const std::string& path, const std::string& content, const std::string& folder)
{
    const std::string own = folder + "/" + std::filesystem::path(path).filename().string();
    std::ofstream(own) << content;
    if (mount(own.c_str(), path.c_str(), "none", MS_BIND, nullptr) != 0)
        throw PrivateAccounts::Unavailable{"cannot mount over " + path + ": " + ErrorText()};
}

std::string Configuration(const std::string& address, const std::string& folder)
{
    std::string text = ContentOf("/usr/share/dbus-1/system.conf");
    const auto replace = [&text](const std::string& expression, const std::string& replacement) {
        text = std::regex_replace(text, std::regex(expression), replacement);
    };
    replace("<listen>[^<]*</listen>", "<listen>" + address + "</listen>");
    replace("<fork/>", "");
    replace("<pidfile>[^<]*</pidfile>", "");
    replace("<include [^>]*>[^<]*</include>", "");
    replace("<includedir>/[^<]*</includedir>", "");
    replace("<includedir>system.d</includedir>",
            "<includedir>" + folder + "/system.d</includedir>");
    return text;
}

// dbus-broker logs to the journal or not at all, and stands still while nobody reads that.
class Journal {
public:
    Journal()
    {
        const std::string folder = "/run/systemd";
        std::filesystem::create_directories(folder);
        if (mount("tmpfs", folder.c_str(), "tmpfs", 0, nullptr) != 0)
            throw PrivateAccounts::Unavailable{"cannot mount over " + folder + ": " + ErrorText()};
        std::filesystem::create_directory(folder + "/journal");
        const sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
        if (bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
            throw std::runtime_error("cannot listen as the journal: " + ErrorText());
        m_reader = std::thread([this] {
            char entry[1];
            while (recv(m_socket, entry, sizeof(entry), 0) > 0) {
            }
        });
    }

    ~Journal()
    {
        shutdown(m_socket, SHUT_RD);
        m_reader.join();
        close(m_socket);
    }

    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

private:
    int m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::thread m_reader;
};

// The effective ids, which the bus sees, while it lives.
class Impersonation {
public:
    explicit Impersonation(const Account& account)
    {
        if (setegid(account.id) != 0 || seteuid(account.id) != 0)
            throw std::runtime_error("cannot become " + account.name + ": " + ErrorText());
    }
    ~Impersonation()
    {
        if (seteuid(0) != 0 || setegid(0) != 0)
            abort();
    }
    Impersonation(const Impersonation&) = delete;
    Impersonation& operator=(const Impersonation&) = delete;
};

}  // namespace

PrivateAccounts::PrivateAccounts(const std::string& folder, const std::vector<Account>& accounts)
{
    if (geteuid() != 0)
        throw Unavailable{"not root, and so no other user can be played"};
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0)
        throw Unavailable{"no mount namespace can be made: " + ErrorText()};
    std::string users = ContentOf("/etc/passwd");
    std::string groups = ContentOf("/etc/group");
    for (const auto& [name, id] : accounts) {
        const std::string number = std::to_string(id);
        users += name + ":x:" + number + ":" + number + "::/nonexistent:/bin/false\n";
        groups += name + ":x:" + number + ":\n";
    }
    MountOver("/etc/passwd", users, folder);
    MountOver("/etc/group", groups, folder);
}

bool StockBus::Exists(Daemon daemon)
{
    return daemon == Daemon::dbus_daemon || (access("/usr/bin/dbus-broker-launch", X_OK) == 0 &&
                                             access("/usr/bin/systemd-socket-activate", X_OK) == 0);
}

StockBus::StockBus(Daemon daemon, const std::string& folder)
    : m_address("unix:path=" + folder + "/bus")
{
    const std::string configuration = folder + "/bus.conf";
    std::ofstream(configuration) << Configuration(m_address, folder);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
    if (daemon == Daemon::dbus_daemon) {
        m_daemon = std::make_unique<ChildProcess>(
            std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile", "--print-address=1",
                                     "--config-file=" + configuration});
        m_daemon->WaitForLine("unix:path=");
        return;
    }
    m_journal = std::make_shared<Journal>();
    m_daemon = std::make_unique<ChildProcess>(std::vector<std::string>{
        "sh", "-c",
        "exec systemd-socket-activate --listen=" + folder +
            "/bus --setenv=DBUS_SYSTEM_BUS_ADDRESS dbus-broker-launch --scope=system "
            "--config-file=" +
            configuration + " 2>&1"});
    m_daemon->WaitForLine("Listening on ");
    std::filesystem::permissions(folder + "/bus", std::filesystem::perms::all);
}

std::unique_ptr<BusActor> StockBus::Connect(const Account& account) const
{
    const Impersonation impersonation(account);
    return std::make_unique<BusActor>(m_address);
}

std::vector<std::string> StockBus::RunAs(const Account& account)
{
    // The capability lets it read the program wherever that is built.
    const std::string id = std::to_string(account.id);
    return {"setpriv",
            "--reuid=" + id,
            "--regid=" + id,
            "--clear-groups",
            "--pdeathsig=KILL",
            "--inh-caps=+dac_read_search",
            "--ambient-caps=+dac_read_search"};
}
