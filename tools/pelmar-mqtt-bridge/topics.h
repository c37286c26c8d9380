// The topics of one channel. A session is one connection of a bridge to the broker.
//
//   PREFIX/CHANNEL/service/SESSION   retained: an attached bridge has the service; its bus
//   PREFIX/CHANNEL/offer/SESSION     retained: an offering bridge is the service on its bus
//   PREFIX/CHANNEL/up/TO/FROM        from an offering bridge: greetings, requests, notifications
//   PREFIX/CHANNEL/reply/FROM/TO     the answers to greetings and requests
//   PREFIX/CHANNEL/down/FROM         the service's notifications
#ifndef PELMAR_BRIDGE_TOPICS_H
#define PELMAR_BRIDGE_TOPICS_H

#include <string>
#include <vector>

class Topics {
public:
    Topics(const std::string& prefix, const std::string& channel)
        : m_start(prefix + "/" + channel + "/")
    {
    }

    std::string Make(const std::string& kind, const std::string& last) const
    {
        return m_start + kind + "/" + last;
    }
    std::string Make(const std::string& kind, const std::string& first,
                     const std::string& last) const
    {
        return Make(kind, first + "/" + last);
    }

    // What follows the channel: the kind and the sessions.
    std::vector<std::string> Levels(const std::string& topic) const;

private:
    const std::string m_start;
};

#endif
