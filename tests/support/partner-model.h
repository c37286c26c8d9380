/// @file
/// What a channel's partner table and its calls of HandleConnectionReady have to be, kept apart
/// from the channel and simply enough to be seen to be right.
#ifndef PELMAR_TESTS_PARTNER_MODEL_H
#define PELMAR_TESTS_PARTNER_MODEL_H

#include <map>
#include <ostream>
#include <string>
#include <vector>

/// One record of the table. Nobody is wired up without having been at least half-way.
struct PartnerState {
    bool wired = false;
    int stage = 0;  ///< 0: only looked up, 2: SYN_ACK, 3: ACK, ready

    bool operator==(const PartnerState& other) const
    {
        return wired == other.wired && stage == other.stage;
    }
};

inline std::ostream& operator<<(std::ostream& stream, const PartnerState& state)
{
    return stream << (state.wired ? "wired " : "") << "stage " << state.stage;
}

class PartnerModel {
public:
    using Table = std::map<std::string, PartnerState>;

    /// The partner's release of a stage name reaches the channel. The result says which pulse, of
    /// the stage with this suffix, the channel tries in answer; empty: none.
    std::string Released(const std::string& stage, const std::string& partner)
    {
        if (stage == "_ACK") {
            PartnerState& state = m_table[partner];
            if (state.wired) {
                state.stage = 3;
                m_told.push_back("ready " + partner);
            }
            return "";
        }
        PartnerState& state = m_table[partner];
        if (state.wired)
            return "";
        if (stage == "_SYN") {
            state = {true, 2};
            return "_SYN_ACK";
        }
        state = {true, 3};
        m_told.push_back("ready " + partner);
        return "_ACK";
    }

    /// The watch on the partner's unique name reports that it is gone.
    void Vanished(const std::string& partner)
    {
        if (IsWired(partner))
            m_told.push_back("lost " + partner);
        m_table.erase(partner);
    }

    /// The application asks whether the partner is ready, which adds a record for an unknown one.
    bool AskReady(const std::string& partner)
    {
        m_table.emplace(partner, PartnerState());
        return IsReady(partner);
    }

    bool IsWired(const std::string& partner) const
    {
        const auto found = m_table.find(partner);
        return found != m_table.end() && found->second.wired;
    }

    bool IsReady(const std::string& partner) const
    {
        const auto found = m_table.find(partner);
        return found != m_table.end() && found->second.stage == 3;
    }

    const Table& Records() const { return m_table; }

    /// What the application has been told, "ready NAME" or "lost NAME", and whatever else the test
    /// adds in its order.
    std::vector<std::string>& Told() { return m_told; }

private:
    Table m_table;
    std::vector<std::string> m_told;
};

#endif
