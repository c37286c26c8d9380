#include "machines.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

namespace {

constexpr int MQTT_PORT = 1883;

bool BringLoopbackUp()
{
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool up = ioctl(descriptor, SIOCSIFFLAGS, &request) == 0;
    close(descriptor);
    return up;
}

int NextPort()
{
    if (HaveOwnNetwork())
        return MQTT_PORT;
    std::random_device random;
    return std::uniform_int_distribution<int>(20000, 60000)(random);
}

std::vector<std::string> WithErrors(const std::vector<std::string>& argv)
{
    std::vector<std::string> command{"sh", "-c", "exec \"$@\" 2>&1", "sh"};
    command.insert(command.end(), argv.begin(), argv.end());
    return command;
}

std::vector<std::string> BridgeCommand(const Broker& broker,
                                       const std::vector<std::string>& options,
                                       const std::vector<std::string>& launcher)
{
    std::vector<std::string> command = launcher;
    command.push_back(PELMAR_MQTT_BRIDGE);
    if (std::find(options.begin(), options.end(), "--host") == options.end())
        command.insert(command.end(), {"--host", broker.Address()});
    command.insert(command.end(), {"--port", broker.Port()});
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

}  // namespace

bool HaveOwnNetwork()
{
    static const bool own = unshare(CLONE_NEWNET) == 0 && BringLoopbackUp();
    return own;
}

void RunToEnd(const std::vector<std::string>& argv)
{
    ChildProcess process(argv);
    process.CloseInput();
    if (const int status = process.WaitForEnd())
        throw std::runtime_error(argv.front() + " ended with status " + std::to_string(status));
}

TemporaryFolder::TemporaryFolder()
    : m_path((std::filesystem::temp_directory_path() / "pelmar-bridge-XXXXXX").string())
{
    if (mkdtemp(m_path.data()) == nullptr)
        throw std::runtime_error("mkdtemp: cannot make " + m_path);
}

TemporaryFolder::~TemporaryFolder()
{
    std::filesystem::remove_all(m_path);
}

std::string TemporaryFolder::Write(const std::string& name, const std::string& text) const
{
    std::ofstream(File(name)) << text;
    chmod(File(name).c_str(), S_IRUSR | S_IWUSR);
    return File(name);
}

Broker::Broker(const std::string& settings, const std::string& address)
    : m_settings(settings), m_address(address)
{
    Start();
}

// Where the ports are shared with others, one may be taken.
void Broker::Start()
{
    if (m_port != 0) {
        StartOnce();
        return;
    }
    constexpr int most_tries = 20;
    for (int tries = 1;; ++tries) {
        m_port = NextPort();
        try {
            StartOnce();
            return;
        } catch (const std::runtime_error&) {
            if (HaveOwnNetwork() || tries == most_tries)
                throw;
        }
    }
}

void Broker::StartOnce()
{
    const std::string user = geteuid() == 0 ? "user root\n" : "";
    const std::string path =
        m_folder.Write("broker.conf", user + "log_timestamp false\nlistener " + Port() + " " +
                                          m_address + "\n" + m_settings);
    m_process = std::make_unique<ChildProcess>(WithErrors({PELMAR_MOSQUITTO, "-c", path}));
    while (m_process->WaitForLine("mosquitto version ").find("running") == std::string::npos) {
    }
}

void Broker::Publish(const std::string& topic, const std::string& payload,
                     const std::vector<std::string>& properties,
                     const std::vector<std::string>& options) const
{
    std::vector<std::string> command{"mosquitto_pub", "-V", "5",    "-q", "1",   "-h",
                                     m_address,       "-p", Port(), "-t", topic, "-m",
                                     payload};
    command.insert(command.end(), options.begin(), options.end());
    for (const std::string& property : properties) {
        command.insert(command.end(), {"-D", "publish"});
        for (std::size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
            end = property.find(' ', start);
            command.push_back(property.substr(start, end - start));
        }
    }
    RunToEnd(command);
}

std::unique_ptr<ChildProcess> Broker::Listen(const std::string& filter) const
{
    auto listener = std::make_unique<ChildProcess>(
        std::vector<std::string>{"stdbuf", "-oL", "mosquitto_sub", "-V", "5", "-h", m_address, "-p",
                                 Port(), "-t", filter, "-v", "-d"});
    listener->WaitForLine("Subscribed ");
    return listener;
}

Program::Program(const TestBus& bus, const std::vector<std::string>& argv)
    : ChildProcess(WithErrors(argv), {{"DBUS_SYSTEM_BUS_ADDRESS", bus.Address()}})
{
}

Bridge::Bridge(const TestBus& bus, const Broker& broker, const std::vector<std::string>& options,
               const std::vector<std::string>& launcher)
    : Program(bus, BridgeCommand(broker, options, launcher))
{
}

std::string Bridge::Counters()
{
    Signal(SIGUSR1);
    return WaitForLine("pelmar-mqtt-bridge[demo]: forwarded ");
}

void Bridge::WaitForCounters(const std::string& text)
{
    const auto deadline = std::chrono::steady_clock::now() + TEST_DEADLINE;
    for (std::string counters = Counters(); counters.find(text) == std::string::npos;
         counters = Counters()) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("waited for the counters '" + text + "'; they are '" +
                                     counters + "'");
    }
}

Peer::Peer(const TestBus& bus, const std::string& role, const std::string& channel)
    : Program(bus, {PELMAR_ENDPOINT_PEER, role, channel})
{
}
