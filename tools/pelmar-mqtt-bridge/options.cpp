#include "options.h"

#include <arpa/inet.h>
#include <mosquitto.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include "channel-names.h"
#include "exit-status.h"
#include "pelmar-endpoint.h"

namespace {

constexpr int PLAIN_PORT = 1883;
constexpr int TLS_PORT = 8883;

constexpr const char* DESCRIPTION =
    "Carries channels between machines over an MQTT 5 broker. On the service's machine it is a\n"
    "client of the channel (--attach), on each other machine the channel's service (--offer).";

constexpr const char* FOOTER =
    "\nExamples:\n"
    "  on the service's machine:\n"
    "    pelmar-mqtt-bridge --attach digest --host broker.example --ca ca.pem \\\n"
    "        --user machine-a --password-file /etc/pelmar/password\n"
    "  on each client's machine the same with --offer digest\n"
    "\n"
    "SIGUSR1 shows the counters on standard error; SIGTERM and SIGINT end the bridge.\n"
    "\n"
    "Exit status: 0 ended by SIGTERM, 1 failure, 2 usage, 5 refused by the broker,\n"
    "6 system bus unreachable, 130 ended by SIGINT.";

// What is checked and turned into the options when everything is parsed.
struct Given {
    std::vector<std::string> attach;
    std::vector<std::string> offer;
    std::string bus;
    std::string password_file;
    bool tls = false;
    bool allow_plain = false;
    std::size_t keep_alive = 15;
    std::size_t request_timeout = 20;
};

// The option as it is called in the message, and what is wrong with it.
[[noreturn]] void Refuse(const std::string& option, const std::string& text)
{
    throw CLI::ValidationError(option, text);
}

void AddChannels(Options& options, const std::vector<std::string>& names, CarriedChannel::Side side,
                 const std::string& option)
{
    for (const std::string& name : names) {
        if (const std::string fault = FaultInChannelName(name); !fault.empty())
            Refuse(option, fault);
        for (const CarriedChannel& other : options.channels) {
            if (other.name == name && other.side == side)
                Refuse(option, "the channel " + name + " is named twice");
            if (other.name == name)
                Refuse(option, "the channel " + name +
                                   " is attached and offered on one bus: that is a loop; run the "
                                   "second bridge on the other machine");
        }
        options.channels.push_back({name, side});
    }
}

void CheckTopicPrefix(const std::string& prefix)
{
    const bool usable = !prefix.empty() && prefix.size() <= 1024 &&
                        mosquitto_validate_utf8(prefix.data(), static_cast<int>(prefix.size())) ==
                            MOSQ_ERR_SUCCESS &&
                        prefix.find_first_of("+#") == std::string::npos && prefix.front() != '$' &&
                        prefix.back() != '/';
    if (!usable)
        Refuse("--topic-prefix", "'" + prefix +
                                     "' cannot be a topic's start: it must be UTF-8, not be empty, "
                                     "contain + or #, begin with $ or end with /");
}

void CheckReadable(const std::string& option, const std::string& file)
{
    if (file.empty())
        return;
    struct stat status = {};
    if (stat(file.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        Refuse(option, "'" + file + "' is a directory, not a file");
    if (!std::ifstream(file).is_open())
        Refuse(option, "cannot read '" + file + "': no such file, or no permission");
}

std::string ReadPassword(const std::string& file)
{
    CheckReadable("--password-file", file);
    struct stat status = {};
    if (stat(file.c_str(), &status) == 0 && (status.st_mode & S_IROTH) != 0)
        Refuse("--password-file", "everybody can read '" + file + "': chmod o-r " + file);
    std::ifstream stream(file);
    std::string password;
    std::getline(stream, password);
    if (password.empty())
        Refuse("--password-file", "the first line of '" + file +
                                      "' is to be the password; it is "
                                      "empty");
    return password;
}

// By address: a name that begins with 127. may lead anywhere.
bool IsLoopback(const std::string& host)
{
    constexpr in_addr_t loopback_network = 127;
    in_addr address = {};
    in6_addr address6 = {};
    if (inet_pton(AF_INET, host.c_str(), &address) == 1)
        return ntohl(address.s_addr) >> 24U == loopback_network;
    if (inet_pton(AF_INET6, host.c_str(), &address6) == 1)
        return IN6_IS_ADDR_LOOPBACK(&address6);
    return host == "localhost";
}

void CompleteBroker(BrokerOptions& broker, const Given& given)
{
    if (broker.host.empty())
        Refuse("--host", "the broker's name is empty");
    CheckReadable("--ca", broker.ca_file);
    CheckReadable("--cert", broker.certificate_file);
    CheckReadable("--key", broker.key_file);
    broker.tls = given.tls || !broker.ca_file.empty();
    if (!broker.certificate_file.empty() && !broker.tls)
        Refuse("--cert", "a certificate needs TLS: give --ca FILE, or --tls to trust the system's");
    if (!broker.tls && !IsLoopback(broker.host) && !given.allow_plain)
        Refuse("--host", "the connection to '" + broker.host +
                             "' would be neither encrypted nor verified: give --ca FILE (or --tls "
                             "to trust the system's certificates), or --allow-plain if the network "
                             "is trusted");
    if (broker.port == 0)
        broker.port = broker.tls ? TLS_PORT : PLAIN_PORT;
    if (!given.password_file.empty())
        broker.password = ReadPassword(given.password_file);
    broker.keep_alive = std::chrono::seconds(given.keep_alive);
}

void Complete(Options& options, const Given& given)
{
    AddChannels(options, given.attach, CarriedChannel::Side::attach, "--attach");
    AddChannels(options, given.offer, CarriedChannel::Side::offer, "--offer");
    if (options.channels.empty())
        Refuse("--attach", "no channel to carry: name one with --attach or --offer");
    CheckTopicPrefix(options.topic_prefix);
    CompleteBroker(options.broker, given);
    options.request_timeout = std::chrono::seconds(given.request_timeout);
    if (!given.bus.empty())
        setenv("DBUS_SYSTEM_BUS_ADDRESS", given.bus.c_str(), 1);
}

void AddChannelOptions(CLI::App& app, Options& options, Given& given)
{
    const std::string group = "Channels";
    app.add_option("--attach", given.attach,
                   "Carry CHANNEL, whose service is on this machine (may be repeated)")
        ->type_name("CHANNEL")
        ->group(group);
    app.add_option("--offer", given.offer,
                   "Carry CHANNEL, whose service is on another machine (may be repeated)")
        ->type_name("CHANNEL")
        ->group(group);
    app.add_option("--bus", given.bus, "The bus to use instead of the system's")
        ->type_name("ADDRESS")
        ->group(group);
    app.add_option("--max-message", options.max_message_bytes,
                   "The largest message to carry, in bytes; never more than bus and broker take")
        ->check(CLI::Range(std::size_t{1}, PelmarEndpoint::MAX_BUS_MESSAGE_BYTES))
        ->default_val(PelmarEndpoint::MAX_BUS_MESSAGE_BYTES)
        ->type_name("BYTES")
        ->group(group);
    app.add_option("--queue", options.queue_bytes,
                   "How many bytes may wait for the broker, or for a partner on the bus; what "
                   "exceeds is refused")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 40))
        ->capture_default_str()
        ->type_name("BYTES")
        ->group(group);
    app.add_option("--request-timeout", given.request_timeout,
                   "How long the remote service may take to answer a call")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str()
        ->type_name("SECONDS")
        ->group(group);
}

void AddBrokerOptions(CLI::App& app, Options& options, Given& given)
{
    const std::string group = "Broker";
    BrokerOptions& broker = options.broker;
    app.add_option("--host", broker.host, "The broker's name or address")
        ->capture_default_str()
        ->group(group);
    app.add_option("--port", broker.port, "Its port (default: 8883 with TLS, 1883 without)")
        ->check(CLI::Range(1, 65535))
        ->group(group);
    app.add_option("--topic-prefix", options.topic_prefix,
                   "What the topics begin with, the same for the bridges of a channel")
        ->capture_default_str()
        ->group(group);
    app.add_option("--qos", broker.qos, "MQTT's quality of service for messages: 0, 1 or 2")
        ->check(CLI::Range(0, 2))
        ->capture_default_str()
        ->group(group);
    app.add_option("--keep-alive", given.keep_alive, "A dead link is noticed within 1.5 times this")
        ->check(CLI::Range(9, 3600))
        ->capture_default_str()
        ->type_name("SECONDS")
        ->group(group);
    app.add_flag("--tls", given.tls, "Use TLS and trust the system's certificates")->group(group);
    app.add_option("--ca", broker.ca_file, "Use TLS and trust the certificates in FILE alone")
        ->type_name("FILE")
        ->group(group);
    CLI::Option* certificate =
        app.add_option("--cert", broker.certificate_file, "The bridge's own certificate")
            ->type_name("FILE")
            ->group(group);
    CLI::Option* key = app.add_option("--key", broker.key_file, "The key of --cert")
                           ->type_name("FILE")
                           ->needs(certificate)
                           ->group(group);
    certificate->needs(key);
    CLI::Option* user =
        app.add_option("--user", broker.user, "The name to log in with")
            ->check([](const std::string& name) {
                return name.empty() ? std::string("the name is empty") : std::string();
            })
            ->group(group);
    app.add_option("--password-file", given.password_file, "Its password: the first line of FILE")
        ->type_name("FILE")
        ->needs(user)
        ->group(group);
    app.add_flag("--allow-plain", given.allow_plain,
                 "Allow a connection without TLS to another machine")
        ->group(group);
}

// Of what is not known the library's own text has the name at its end, and says nothing of the
// file.
std::string WrongInFile(const CLI::App& app, const CLI::ConfigError& error)
{
    const std::string text = error.what();
    const std::string option = text.substr(text.find_last_of(' ') + 1);
    const bool unknown = text.find("not able to parse") != std::string::npos;
    const std::size_t section = option.find(".++");
    std::string wrong = text;
    if (unknown && section != std::string::npos)
        wrong = "there are no sections, such as '[" + option.substr(0, section) + "]'";
    else if (unknown)
        wrong = "there is no option '" + option + "'";
    return app.get_config_ptr()->as<std::string>() + ": " + wrong +
           "\nRun with --help for more information.\n";
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& exit_status)
{
    CLI::App app(DESCRIPTION, "pelmar-mqtt-bridge");
    app.footer(FOOTER);
    app.set_version_flag("--version", "pelmar-mqtt-bridge " PELMAR_VERSION);
    app.set_config("--config", "", "Read options from FILE: name=value, names as above without --");
    app.get_config_ptr()->type_name("FILE");
    app.allow_config_extras(CLI::config_extras_mode::error);

    Options options;
    Given given;
    AddChannelOptions(app, options, given);
    AddBrokerOptions(app, options, given);
    app.final_callback([&] { Complete(options, given); });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ConfigError& error) {
        std::cerr << WrongInFile(app, error);
        exit_status = STATUS_USAGE;
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        exit_status = app.exit(error) == 0 ? STATUS_OK : STATUS_USAGE;
        return std::nullopt;
    }
    return options;
}
