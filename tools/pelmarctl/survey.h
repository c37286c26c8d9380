// Who is on which channel now, as far as the bus lets this process see.
#ifndef PELMARCTL_SURVEY_H
#define PELMARCTL_SURVEY_H

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "bus.h"
#include "stage-names.h"

// A channel's object as one process has it.
enum class ObjectState {
    none,
    alive,         // its main loop answers
    no_interface,  // something else is at the path
    silent,        // its main loop does not answer
    refused,       // the policy does not let this process ask
};

struct ChannelObject {
    std::string channel;
    std::string name;
    ObjectState state = ObjectState::none;
    Credentials credentials;
    // With whom it goes past the bus; nothing where it does not say.
    std::optional<std::vector<std::string>> direct;
};

// The match rules of every connection, by its unique name: what it listens to.
class MatchRules {
public:
    using Rule = std::map<std::string, std::string>;

    // Nothing when the daemon does not tell, or not to this user.
    static std::optional<MatchRules> Read(Bus& bus);

    // Who watches a name of the channel's other side. Any one will do: a plain channel watches all
    // three, an endpoint only those that it waits for.
    bool TakesPart(const std::string& name, const std::string& channel, ChannelRole role) const;
    std::set<std::string> Members(const std::string& channel) const;
    std::set<std::string> ChannelsOf(const std::string& name) const;

    // Those whose pulse it has seen: from that moment a plain channel listens to the other's
    // signals, and an endpoint watches for the other's end.
    std::set<std::string> WiredBy(const std::string& name, const std::string& channel) const;

    // Whether it shows that it is an endpoint. That has a connection for one channel alone, and
    // listens to nobody. One that waits for its first client cannot be told from a plain channel.
    bool IsEndpoint(const std::string& name, const std::string& channel) const;

    std::size_t CountOf(const std::string& name) const;

private:
    const std::vector<Rule>& RulesOf(const std::string& name) const;

    std::map<std::string, std::vector<Rule>> m_rules;
};

struct Survey {
    std::vector<ChannelObject> objects;  // ordered by channel, then name
    std::size_t refused = 0;             // connections that could not be asked
    std::vector<std::string> silent;     // connections that did not answer
    std::vector<std::string> names;      // every connection but this one
};

// Asks everybody on the bus. Of those that do not answer, or may not be asked, the match rules show
// the channels; where the policy hides them, the channels in `known` are tried as well.
Survey TakeSurvey(Bus& bus, const std::set<std::string>& known,
                  const std::optional<MatchRules>& rules);

#endif
