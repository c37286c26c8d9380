// The command line and the configuration file.
#ifndef PELMAR_BRIDGE_OPTIONS_H
#define PELMAR_BRIDGE_OPTIONS_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

struct BrokerOptions {
    std::string host = "localhost";
    int port = 0;
    bool tls = false;
    std::string ca_file;  // empty with TLS: the certificates that the system trusts
    std::string certificate_file;
    std::string key_file;
    std::string user;
    std::string password;
    std::chrono::seconds keep_alive{15};
    int qos = 1;
};

struct CarriedChannel {
    enum class Side { attach, offer };
    std::string name;
    Side side;
};

struct Options {
    BrokerOptions broker;
    std::string topic_prefix = "pelmar";
    std::vector<CarriedChannel> channels;
    std::size_t max_message_bytes = 0;
    std::size_t queue_bytes = 64UL * 1024 * 1024;

    // Shorter than GDBus's own 25 s, so that a caller reads why its call failed.
    std::chrono::seconds request_timeout{20};
};

// Nothing when the program is to end with `exit_status`; what there was to say is said. An option
// --bus is in the environment afterwards.
std::optional<Options> ParseOptions(int argc, char** argv, int& exit_status);

#endif
