// doctor: the bus itself.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "doctor.h"

namespace {

constexpr const char* EXAMPLE = "unix:path=/run/dbus/system_bus_socket";

// What dbus-daemon takes where its configuration does not say it, and when it is close.
constexpr std::size_t MATCH_RULES = 512;
constexpr std::size_t CONNECTIONS_OF_A_USER = 256;
constexpr std::size_t CONNECTIONS = 2048;
constexpr std::size_t CLOSE_PERCENT = 80;

std::string SocketPathIn(const std::string& address)
{
    const std::string start = "unix:path=";
    if (address.compare(0, start.size(), start) != 0)
        return {};
    const std::size_t end = address.find_first_of(",;");
    const std::unique_ptr<char, decltype(&g_free)> path(
        g_uri_unescape_segment(address.c_str() + start.size(),
                               address.c_str() + std::min(end, address.size()), nullptr),
        g_free);
    return path != nullptr ? path.get() : "";
}

// The error number of a connection to the socket, 0 when it works.
int TryToConnect(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int result =
        connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    const int fault = result == 0 ? 0 : errno;
    close(descriptor);
    return fault;
}

void DiagnoseSocket(Report& report, const std::string& path, const std::string& failure)
{
    const auto problem = [&](const std::string& cause, const std::string& remedy) {
        report.Problem(Exit::bus, "bus", cause, remedy);
    };
    struct stat file = {};
    if (stat(path.c_str(), &file) != 0) {
        problem("there is no socket " + path + ": " + std::strerror(errno),
                "start the bus daemon (systemctl start dbus); in a container, mount the host's "
                "/run/dbus; or name another bus with --bus or DBUS_SYSTEM_BUS_ADDRESS");
        return;
    }
    if (!S_ISSOCK(file.st_mode)) {
        problem(path + " is no socket", "correct --bus or DBUS_SYSTEM_BUS_ADDRESS");
        return;
    }
    const int fault = TryToConnect(path);
    if (fault == ECONNREFUSED)
        problem("nobody listens on " + path + ": the bus daemon that made it has ended",
                "start the bus daemon (systemctl start dbus)");
    else if (fault != 0)
        problem("this user cannot connect to " + path + ": " + std::strerror(fault),
                "run as a user who may use the socket, or correct its permissions");
    else
        problem(
            "who listens on " + path +
                " does not let this process in as a bus daemon does: " + failure,
            "correct --bus or DBUS_SYSTEM_BUS_ADDRESS; a daemon that hangs has to be restarted");
}

bool IsClose(std::size_t used, std::size_t limit)
{
    return used * 100 >= limit * CLOSE_PERCENT;
}

std::string OutOf(std::size_t used, std::size_t limit)
{
    return std::to_string(used) + " of " + std::to_string(limit);
}

std::map<uid_t, std::size_t> ConnectionsByUser(const Scene& scene)
{
    std::vector<BusCall> calls;
    for (const std::string& name : scene.survey.names)
        calls.push_back(
            Bus::DaemonCall("GetConnectionUnixUser", g_variant_new("(s)", name.c_str())));
    std::map<uid_t, std::size_t> count = {{geteuid(), 1}};
    for (const Answer& answer : scene.bus.CallAll(calls, std::chrono::seconds(5))) {
        guint32 uid = 0;
        if (answer.value == nullptr)
            continue;
        g_variant_get(answer.value.get(), "(u)", &uid);
        ++count[static_cast<uid_t>(uid)];
    }
    return count;
}

void CheckConnections(Report& report, const Scene& scene)
{
    const std::size_t limit = scene.config.Limit("max_connections_per_user", CONNECTIONS_OF_A_USER);
    std::size_t most = 0;
    for (const auto& [uid, count] : ConnectionsByUser(scene)) {
        most = std::max(most, count);
        if (IsClose(count, limit))
            report.Problem(
                Exit::failure, "limits",
                UserName(uid) + " has " + OutOf(count, limit) + " connections that a user may have",
                "raise max_connections_per_user in a file in /etc/dbus-1/system.d");
    }
    const std::size_t all = scene.survey.names.size() + 1;
    const std::size_t all_limit = scene.config.Limit("max_completed_connections", CONNECTIONS);
    if (IsClose(all, all_limit))
        report.Problem(Exit::failure, "limits",
                       "the bus has " + OutOf(all, all_limit) + " connections",
                       "raise max_completed_connections in a file in /etc/dbus-1/system.d");
    else if (!IsClose(most, limit))
        report.Good("limits", OutOf(most, limit) + " connections of a user, " +
                                  OutOf(all, all_limit) + " of all");
}

void CheckMatchRules(Report& report, const Scene& scene)
{
    if (!scene.rules) {
        report.Unknown("limits", "this user may not see how many match rules the members have");
        return;
    }
    const std::size_t limit = scene.config.Limit("max_match_rules_per_connection", MATCH_RULES);
    std::size_t most = 0;
    for (const std::string& name : scene.Members()) {
        const std::size_t count = scene.rules->CountOf(name);
        most = std::max(most, count);
        if (IsClose(count, limit))
            report.Problem(Exit::failure, "limits",
                           Describe(scene.bus, name) + " has " + OutOf(count, limit) +
                               " match rules; each partner costs a plain channel three and an "
                               "endpoint one",
                           "raise max_match_rules_per_connection in a file in "
                           "/etc/dbus-1/system.d");
    }
    if (!IsClose(most, limit))
        report.Good("limits", OutOf(most, limit) + " match rules of a member");
}

}  // namespace

void CheckGlib(Report& report)
{
    const std::string version = std::to_string(glib_major_version) + "." +
                                std::to_string(glib_minor_version) + "." +
                                std::to_string(glib_micro_version);
    if (glib_check_version(2, 68, 0) != nullptr)
        report.Problem(Exit::failure, "GLib", "version " + version + " is too old",
                       "install GLib 2.68 or later");
    else
        report.Good("GLib", "version " + version);
}

void DiagnoseUnreachableBus(Report& report, const std::string& failure)
{
    const std::string address = Bus::Address();
    const std::string path = SocketPathIn(address);
    GError* raw_error = nullptr;
    const bool supported = g_dbus_is_supported_address(address.c_str(), &raw_error) != FALSE;
    const ErrorPtr error(raw_error);
    if (!supported)
        report.Problem(Exit::bus, "bus",
                       "'" + address + "' is no address of a bus: " + TextOf(error.get()),
                       std::string("give --bus or DBUS_SYSTEM_BUS_ADDRESS one like ") + EXAMPLE);
    else if (!path.empty())
        DiagnoseSocket(report, path, failure);
    else
        report.Problem(Exit::bus, "bus", failure,
                       "is the bus daemon running, and --bus or DBUS_SYSTEM_BUS_ADDRESS right?");
}

void CheckDaemon(Report& report, const Scene& scene)
{
    report.Good("bus", "reachable at " + Bus::Address() + " as " + scene.bus.UniqueName());
    const Daemon& daemon = scene.daemon;
    const std::string program = daemon.program.empty() ? "not to be seen" : daemon.program;
    const std::string pid = daemon.pid ? ", pid " + std::to_string(*daemon.pid) : "";
    if (daemon.config_file.empty())
        report.Unknown("daemon", program + pid + ", its configuration cannot be found out");
    else
        report.Good("daemon", program + pid + ", configured by " + daemon.config_file);
}

void CheckLimits(Report& report, const Scene& scene)
{
    if (scene.daemon.program != "dbus-daemon") {
        report.Unknown("limits", "only those of dbus-daemon are known");
        return;
    }
    CheckConnections(report, scene);
    if (!scene.channel.empty())
        CheckMatchRules(report, scene);
}
