// What is wrong in a policy file for a channel.
#ifndef PELMARCTL_POLICY_CHECK_H
#define PELMARCTL_POLICY_CHECK_H

#include <string>
#include <vector>

#include "bus-config.h"
#include "stage-names.h"

struct Complaint {
    std::string where;  // the file, and the line where there is one
    std::string text;
    std::string remedy;
};

std::vector<Complaint> CheckPolicy(const BusConfig& config, const std::string& file,
                                   const std::string& channel);

// Whether clients of the channel may ask its services for a direct path.
bool MayOpenPaths(const BusConfig& config, const std::string& channel);

// Rules that name an account which does not exist; the bus passes over them.
std::vector<Complaint> UnknownAccounts(const BusConfig& config);

// Those that may be the given side of the channel: "user 'svc'", "everybody".
std::vector<std::string> WhoMayBe(const BusConfig& config, const std::string& channel,
                                  ChannelRole role);

bool MayBe(const BusConfig& config, const Identity& identity, const std::string& channel,
           ChannelRole role);

#endif
