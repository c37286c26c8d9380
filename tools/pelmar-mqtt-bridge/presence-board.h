// Which bridges say that they are there.
#ifndef PELMAR_BRIDGE_PRESENCE_BOARD_H
#define PELMAR_BRIDGE_PRESENCE_BOARD_H

#include <chrono>
#include <map>
#include <string>

#include "mqtt-link.h"

// A bridge repeats its state, which expires otherwise: a broker that was killed itself and kept
// what was retained publishes no last will for those who went meanwhile.
class PresenceBoard {
public:
    using Clock = std::chrono::steady_clock;

    // From session to the id of its bus.
    const std::map<std::string, std::string>& Present() const { return m_present; }

    void Take(const std::string& session, const MqttMessage& state)
    {
        if (state.payload.empty()) {
            Remove(session);
            return;
        }
        m_present[session].assign(state.payload.begin(), state.payload.end());
        m_expires[session] =
            state.expiry.count() > 0 ? Clock::now() + state.expiry : Clock::time_point::max();
    }

    // True when that ended any.
    bool RemoveExpired()
    {
        const std::map<std::string, Clock::time_point> all = m_expires;
        for (const auto& [session, expires] : all) {
            if (expires <= Clock::now())
                Remove(session);
        }
        return m_expires.size() != all.size();
    }

    void Clear()
    {
        m_present.clear();
        m_expires.clear();
    }

private:
    void Remove(const std::string& session)
    {
        m_present.erase(session);
        m_expires.erase(session);
    }

    std::map<std::string, std::string> m_present;
    std::map<std::string, Clock::time_point> m_expires;
};

#endif
