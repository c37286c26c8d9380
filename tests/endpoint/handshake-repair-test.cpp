// The repair of the handshake by itself: events and time go in, what it wants done comes out.

#include "handshake-repair.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using Wiring = HandshakeRepair::Wiring;
using Role = HandshakeRepair::Role;
using PulseResult = HandshakeRepair::PulseResult;
using ProbeResult = HandshakeRepair::ProbeResult;

const char* NameOf(Stage stage)
{
    constexpr std::array<const char*, ALL_STAGES.size()> names = {"SYN", "SYN_ACK", "ACK"};
    return names[IndexOf(stage)];
}

// Notes what it is asked for, and plays the channel: it knows how far each partner is wired up.
class NotedActions : public HandshakeRepair::Actions {
public:
    Wiring WiringOf(const std::string& partner) const override
    {
        const auto found = wiring.find(partner);
        return found == wiring.end() ? Wiring::none : found->second;
    }
    bool AnyWired() const override
    {
        return std::any_of(wiring.begin(), wiring.end(),
                           [](const auto& entry) { return entry.second != Wiring::none; });
    }
    void Pulse(Stage stage) override { Note(std::string("pulse ") + NameOf(stage)); }
    void Probe(const std::string& partner) override { Note("probe " + partner); }
    void TakeAckAsSeen(const std::string& partner) override { Note("take ACK of " + partner); }
    void TakeSynAckAsSeen(const std::string& partner) override
    {
        Note("take SYN_ACK of " + partner);
    }
    void ReportReady(const std::string& partner) override { Note("ready " + partner); }

    // What was asked for since the last call.
    std::vector<std::string> Taken() { return std::exchange(m_notes, {}); }

    std::map<std::string, Wiring> wiring;

private:
    void Note(const std::string& note) { m_notes.push_back(note); }

    std::vector<std::string> m_notes;
};

class ARepair : public testing::TestWithParam<Role> {
protected:
    explicit ARepair(Role role) : m_repair(role, m_actions, 1) {}
    ARepair() : ARepair(GetParam()) {}

    // Lets time pass up to the next wake.
    void Wake()
    {
        ASSERT_TRUE(m_repair.NextWake().has_value());
        m_now = std::max(m_now, *m_repair.NextWake());
        m_repair.Wake(m_now);
    }

    // Wakes until there is something to do, and returns that.
    std::vector<std::string> NextActions()
    {
        std::vector<std::string> taken = m_actions.Taken();
        for (int wakes = 0; taken.empty() && m_repair.NextWake() && wakes < 1000; ++wakes) {
            Wake();
            taken = m_actions.Taken();
        }
        return taken;
    }

    // The same, with `limit` as the end of time.
    std::vector<std::string> ActionsWithin(milliseconds limit)
    {
        const auto end = m_now + limit;
        while (m_repair.NextWake() && *m_repair.NextWake() <= end)
            Wake();
        m_now = end;
        m_repair.Wake(m_now);
        return m_actions.Taken();
    }

    milliseconds UntilNextWake() const
    {
        return std::chrono::duration_cast<milliseconds>(*m_repair.NextWake() - m_now);
    }

    void Show(Stage stage) { m_repair.OwnReleased(stage, m_now); }
    void ShowPeers(Stage stage, const std::string& partner)
    {
        m_repair.PeerReleased(stage, partner, m_now);
    }

    // What the channel does with a peer's SYN, with the own SYN_ACK shown.
    void WireHalf(const std::string& partner)
    {
        ShowPeers(Stage::syn, partner);
        m_actions.wiring[partner] = Wiring::half;
        Show(Stage::syn_ack);
    }

    NotedActions m_actions;
    HandshakeRepair m_repair;
    HandshakeRepair::TimePoint m_now{};
};

class AServicesRepair : public ARepair {
protected:
    AServicesRepair() : ARepair(Role::service) {}
};

class AClientsRepair : public ARepair {
protected:
    AClientsRepair() : ARepair(Role::client) {}
};

INSTANTIATE_TEST_SUITE_P(OfEitherRole, ARepair, testing::Values(Role::service, Role::client),
                         [](const auto& role) {
                             return role.param == Role::service ? "Service" : "Client";
                         });

// ---- Own pulses ----------------------------------------------------------------------------

TEST_P(ARepair, HasNothingToDoAtFirst)
{
    EXPECT_FALSE(m_repair.NextWake().has_value());
    m_repair.Wake(m_now);
    EXPECT_THAT(m_actions.Taken(), IsEmpty());
}

TEST_P(ARepair, DoesNotRepeatAPulseThatShowed)
{
    for (const Stage stage : ALL_STAGES) {
        m_repair.Require(stage, m_now);
        Show(stage);
    }
    EXPECT_FALSE(m_repair.NextWake().has_value());
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty());
}

TEST_P(ARepair, PulsesAgainWhatDidNotShow)
{
    for (const Stage stage : ALL_STAGES) {
        m_repair.Require(stage, m_now);
        EXPECT_THAT(NextActions(), ElementsAre(std::string("pulse ") + NameOf(stage)));
        Show(stage);
        m_repair.PulseAnswered(stage, PulseResult::done, m_now);
        EXPECT_FALSE(m_repair.NextWake().has_value());
    }
}

TEST_P(ARepair, GivesAPulseTimeToShowBeforeItRepeatsIt)
{
    m_repair.Require(Stage::syn, m_now);
    EXPECT_GE(UntilNextWake(), milliseconds(4));
    EXPECT_LE(UntilNextWake(), milliseconds(16));
    m_repair.Wake(m_now);
    EXPECT_THAT(m_actions.Taken(), IsEmpty());
}

TEST_P(ARepair, DoesNotExtendTheTimeOfAPulseThatIsRequiredTwice)
{
    m_repair.Require(Stage::syn, m_now);
    const auto first = m_repair.NextWake();
    m_repair.Require(Stage::syn, m_now + milliseconds(3));
    EXPECT_EQ(first, m_repair.NextWake());
}

TEST_P(ARepair, MakesOnePulseAtATime)
{
    m_repair.Require(Stage::syn, m_now);
    EXPECT_THAT(NextActions(), ElementsAre("pulse SYN"));
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty()) << "the first is still unanswered";
    m_repair.PulseAnswered(Stage::syn, PulseResult::done, m_now);
    EXPECT_THAT(NextActions(), ElementsAre("pulse SYN"));
}

TEST_P(ARepair, BacksOffWithJitterUpToHalfASecond)
{
    m_repair.Require(Stage::syn, m_now);
    milliseconds window{32};
    for (int attempt = 0; attempt < 12; ++attempt) {
        ASSERT_THAT(NextActions(), ElementsAre("pulse SYN"));
        m_repair.PulseAnswered(Stage::syn, PulseResult::done, m_now);
        EXPECT_GE(UntilNextWake(), window / 4);
        EXPECT_LE(UntilNextWake(), window);
        window = std::min(milliseconds(512), window * 2);
    }
}

TEST_P(ARepair, BeginsWithTheShortestWaitAgainAfterThePulseShowed)
{
    m_repair.Require(Stage::syn, m_now);
    for (int attempt = 0; attempt < 8; ++attempt) {
        ASSERT_THAT(NextActions(), ElementsAre("pulse SYN"));
        m_repair.PulseAnswered(Stage::syn, PulseResult::done, m_now);
    }
    Show(Stage::syn);
    m_repair.Require(Stage::syn, m_now);
    EXPECT_LE(UntilNextWake(), milliseconds(16));
}

TEST_P(ARepair, TriesARefusedNameSeldom)
{
    m_repair.Require(Stage::syn, m_now);
    ASSERT_THAT(NextActions(), ElementsAre("pulse SYN"));
    m_repair.PulseAnswered(Stage::syn, PulseResult::refused, m_now);
    EXPECT_GE(UntilNextWake(), milliseconds(2500));
    EXPECT_LE(UntilNextWake(), milliseconds(10000));
}

TEST_P(ARepair, SpreadsTheAttemptsOfDifferentProcesses)
{
    std::set<HandshakeRepair::TimePoint> times;
    for (unsigned seed = 1; seed <= 20; ++seed) {
        HandshakeRepair repair(GetParam(), m_actions, seed);
        repair.Require(Stage::syn, m_now);
        times.insert(*repair.NextWake());
    }
    EXPECT_GT(times.size(), 10U);
}

TEST_P(ARepair, PulsesTheAckAgainAfterARepairedSynOfAPartnerThatIsWired)
{
    m_actions.wiring[":1.1"] = Wiring::ready;
    m_repair.Require(Stage::syn, m_now);
    ASSERT_THAT(NextActions(), ElementsAre("pulse SYN"));
    Show(Stage::syn);
    m_repair.PulseAnswered(Stage::syn, PulseResult::done, m_now);
    EXPECT_THAT(NextActions(), ElementsAre("pulse ACK"));
}

TEST_P(ARepair, PulsesNoAckAfterASynThatNobodyIsWiredFor)
{
    m_repair.Require(Stage::syn, m_now);
    Show(Stage::syn);
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty());
}

// ---- Peers' pulses -------------------------------------------------------------------------

TEST_P(ARepair, RequiresTheAnswerToAPeersSyn)
{
    ShowPeers(Stage::syn, ":1.1");
    m_actions.wiring[":1.1"] = Wiring::half;
    EXPECT_THAT(NextActions(), ElementsAre("pulse SYN_ACK"));
}

TEST_P(ARepair, RequiresTheAnswerToAPeersSynAck)
{
    ShowPeers(Stage::syn_ack, ":1.1");
    m_actions.wiring[":1.1"] = Wiring::ready;
    EXPECT_THAT(NextActions(), ElementsAre("pulse ACK"));
}

TEST_P(ARepair, IgnoresTheSynOfAPartnerThatIsWired)
{
    m_actions.wiring[":1.1"] = Wiring::ready;
    ShowPeers(Stage::syn, ":1.1");
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty());
}

TEST_P(ARepair, IgnoresTheSynAckThatAReadyPartnerMeansForAnother)
{
    m_actions.wiring[":1.1"] = Wiring::ready;
    ShowPeers(Stage::syn_ack, ":1.1");
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty());
}

TEST_F(AServicesRepair, CompletesWithAClientWhoseSynCrossedItsOwn)
{
    WireHalf(":1.1");
    ShowPeers(Stage::syn_ack, ":1.1");
    EXPECT_THAT(NextActions(), ElementsAre("pulse ACK"));
    Show(Stage::ack);
    EXPECT_THAT(m_actions.Taken(), ElementsAre("take ACK of :1.1"));
}

TEST_F(AServicesRepair, CompletesOnlyWhatStillWaitsWhenItsAckShows)
{
    WireHalf(":1.1");
    ShowPeers(Stage::syn_ack, ":1.1");
    m_actions.wiring[":1.1"] = Wiring::ready;
    Show(Stage::ack);
    EXPECT_THAT(m_actions.Taken(), IsEmpty());
}

TEST_F(AServicesRepair, TakesAnUnknownClientsAckForItsLostSyn)
{
    ShowPeers(Stage::ack, ":1.1");
    EXPECT_THAT(ActionsWithin(milliseconds(299)), IsEmpty()) << "an endpoint repairs its own SYN";
    EXPECT_THAT(NextActions(), ElementsAre("take SYN_ACK of :1.1"));
    EXPECT_FALSE(m_repair.NextWake().has_value());
}

TEST_F(AServicesRepair, AdoptsNoUnknownClientThatRepairedItsSynMeanwhile)
{
    ShowPeers(Stage::ack, ":1.1");
    m_actions.wiring[":1.1"] = Wiring::ready;
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty());
}

TEST_F(AClientsRepair, TakesNothingFromAnUnknownServicesAck)
{
    ShowPeers(Stage::ack, ":1.1");
    EXPECT_FALSE(m_repair.NextWake().has_value());
}

TEST_F(AClientsRepair, NeedsNoSynOnceTheServiceHasPulsedIts)
{
    m_repair.Require(Stage::syn, m_now);
    WireHalf(":1.1");
    ShowPeers(Stage::ack, ":1.1");
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty());
}

TEST_F(AClientsRepair, NeedsNoSynAlsoWhenOneWasOnItsWayInVainAsTheServicePulsedIts)
{
    m_repair.Require(Stage::syn, m_now);
    ASSERT_THAT(NextActions(), ElementsAre("pulse SYN"));
    WireHalf(":1.1");
    ShowPeers(Stage::ack, ":1.1");
    m_actions.wiring[":1.1"] = Wiring::ready;
    m_repair.ChannelReady(":1.1", m_now);
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty()) << "the service may still see the SYN";
    m_repair.PulseAnswered(Stage::syn, PulseResult::done, m_now);
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    m_repair.ProbeAnswered(":1.1", ProbeResult::alive, m_now);
    EXPECT_THAT(m_actions.Taken(), ElementsAre("ready :1.1"));
    EXPECT_FALSE(m_repair.NextWake().has_value());
}

TEST_F(AClientsRepair, AnswersTheServiceThatSawItsSynBeforeItsAnswer)
{
    m_repair.Require(Stage::syn, m_now);
    Show(Stage::syn);
    WireHalf(":1.1");
    ShowPeers(Stage::syn_ack, ":1.1");
    EXPECT_THAT(NextActions(), ElementsAre("pulse ACK"));
}

TEST_F(AClientsRepair, OwesNoAckToAServiceThatStartedLongAfterItsSyn)
{
    m_repair.Require(Stage::syn, m_now);
    Show(Stage::syn);
    m_now += seconds(11);
    WireHalf(":1.1");
    ShowPeers(Stage::ack, ":1.1");
    m_actions.wiring[":1.1"] = Wiring::ready;
    ShowPeers(Stage::syn_ack, ":1.1");
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty());
}

// ---- Partners that are wired up but not ready ----------------------------------------------

TEST_P(ARepair, AsksAHalfWiredPartnerWhoseAckStaysOut)
{
    WireHalf(":1.1");
    EXPECT_THAT(ActionsWithin(milliseconds(299)), IsEmpty());
    EXPECT_THAT(NextActions(), ElementsAre("probe :1.1"));
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty()) << "the question is still unanswered";
}

TEST_P(ARepair, DoesNotAskBeforeItsOwnSynAckHasShown)
{
    ShowPeers(Stage::syn, ":1.1");
    m_actions.wiring[":1.1"] = Wiring::half;
    for (int i = 0; i < 10; ++i) {
        EXPECT_THAT(NextActions(), ElementsAre("pulse SYN_ACK"));
        m_repair.PulseAnswered(Stage::syn_ack, PulseResult::done, m_now);
    }
    Show(Stage::syn_ack);
    EXPECT_THAT(NextActions(), ElementsAre("probe :1.1"));
}

TEST_P(ARepair, TakesTheAckOfAPartnerThatAnswersAsSeen)
{
    WireHalf(":1.1");
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    m_repair.ProbeAnswered(":1.1", ProbeResult::alive, m_now);
    EXPECT_THAT(NextActions(), ElementsAre("pulse ACK"));
    Show(Stage::ack);
    EXPECT_THAT(m_actions.Taken(), ElementsAre("take ACK of :1.1"));
}

TEST_P(ARepair, AsksASilentPartnerAgain)
{
    WireHalf(":1.1");
    for (int i = 0; i < 5; ++i) {
        ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
        m_repair.ProbeAnswered(":1.1", ProbeResult::silent, m_now);
    }
}

TEST_P(ARepair, GivesAPartnerThatCannotBeAskedTwoSeconds)
{
    WireHalf(":1.1");
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    m_repair.ProbeAnswered(":1.1", ProbeResult::unanswerable, m_now);
    EXPECT_THAT(ActionsWithin(milliseconds(1600)), IsEmpty());
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    m_repair.ProbeAnswered(":1.1", ProbeResult::unanswerable, m_now);
    EXPECT_THAT(NextActions(), ElementsAre("pulse ACK"));
}

TEST_P(ARepair, StopsAskingWhenTheAckComes)
{
    WireHalf(":1.1");
    ShowPeers(Stage::ack, ":1.1");
    m_actions.wiring[":1.1"] = Wiring::ready;
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty());
}

TEST_P(ARepair, IgnoresAnAnswerThatComesAfterTheAck)
{
    WireHalf(":1.1");
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    ShowPeers(Stage::ack, ":1.1");
    m_actions.wiring[":1.1"] = Wiring::ready;
    m_repair.ProbeAnswered(":1.1", ProbeResult::alive, m_now);
    EXPECT_THAT(ActionsWithin(seconds(60)), IsEmpty());
}

TEST_P(ARepair, AsksOnlyAFewPartnersAtOnce)
{
    std::vector<std::string> partners;
    for (int i = 0; i < 40; ++i) {
        partners.push_back(":1." + std::to_string(i));
        WireHalf(partners.back());
    }
    EXPECT_EQ(16U, NextActions().size());
    EXPECT_THAT(ActionsWithin(seconds(2)), IsEmpty());
    m_repair.ProbeAnswered(partners[0], ProbeResult::silent, m_now);
    EXPECT_EQ(1U, NextActions().size());
}

TEST_P(ARepair, AsksAllPartnersInTheEnd)
{
    std::set<std::string> partners;
    for (int i = 0; i < 40; ++i) {
        partners.insert(":1." + std::to_string(i));
        WireHalf(":1." + std::to_string(i));
    }
    std::set<std::string> completed;
    for (int round = 0; round < 100 && completed.size() < partners.size(); ++round) {
        for (const std::string& action : NextActions()) {
            if (action.compare(0, 6, "probe ") == 0)
                m_repair.ProbeAnswered(action.substr(6), ProbeResult::alive, m_now);
        }
        Show(Stage::ack);
        for (const std::string& action : m_actions.Taken()) {
            if (action.compare(0, 12, "take ACK of ") == 0) {
                completed.insert(action.substr(12));
                m_actions.wiring[action.substr(12)] = Wiring::ready;
            }
        }
    }
    EXPECT_EQ(partners, completed);
}

TEST_P(ARepair, ForgetsAPartnerThatIsGone)
{
    WireHalf(":1.1");
    ShowPeers(Stage::ack, ":1.2");
    m_actions.wiring.clear();
    m_repair.PartnerGone(":1.1");
    m_repair.PartnerGone(":1.2");
    EXPECT_FALSE(m_repair.NextWake().has_value());
}

TEST_P(ARepair, DoesNotCompleteWithAPartnerThatWentWhileItWasAsked)
{
    WireHalf(":1.1");
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    m_actions.wiring.clear();
    m_repair.PartnerGone(":1.1");
    m_repair.ProbeAnswered(":1.1", ProbeResult::unanswerable, m_now);
    EXPECT_FALSE(m_repair.NextWake().has_value());
}

TEST_F(AServicesRepair, DoesNotTakeTheAckOfAPartnerThatWentBeforeItsOwnShowed)
{
    WireHalf(":1.1");
    ShowPeers(Stage::syn_ack, ":1.1");
    m_actions.wiring.clear();
    m_repair.PartnerGone(":1.1");
    Show(Stage::ack);
    EXPECT_THAT(m_actions.Taken(), IsEmpty());
}

// ---- When a partner is reported ready ------------------------------------------------------

TEST_F(AClientsRepair, ReportsAServiceReadyWhileItsOwnAckIsOnItsWay)
{
    m_repair.Require(Stage::ack, m_now);
    m_repair.ChannelReady(":1.1", m_now);
    EXPECT_THAT(m_actions.Taken(), ElementsAre("ready :1.1"));
}

TEST_P(ARepair, ReportsAPartnerReadyAtOnceWhenNothingIsMissing)
{
    m_repair.ChannelReady(":1.1", m_now);
    EXPECT_THAT(m_actions.Taken(), ElementsAre("ready :1.1"));
    EXPECT_FALSE(m_repair.NextWake().has_value());
}

TEST_F(AServicesRepair, ReportsAClientReadyEvenWhenAPulseIsMissing)
{
    m_repair.Require(Stage::ack, m_now);
    m_repair.ChannelReady(":1.1", m_now);
    EXPECT_THAT(m_actions.Taken(), ElementsAre("ready :1.1"));
}

class AClientsRepairWithAPulseMissing : public AClientsRepair {
protected:
    AClientsRepairWithAPulseMissing()
    {
        m_repair.Require(Stage::syn, m_now);
        m_actions.wiring[":1.1"] = Wiring::ready;
        m_repair.ChannelReady(":1.1", m_now);
    }

    // The SYN, and the ACK that has to follow it.
    void ShowMissing()
    {
        for (const Stage stage : {Stage::syn, Stage::ack}) {
            EXPECT_THAT(NextActions(), ElementsAre(std::string("pulse ") + NameOf(stage)));
            Show(stage);
            m_repair.PulseAnswered(stage, PulseResult::done, m_now);
        }
    }
};

TEST_F(AClientsRepairWithAPulseMissing, ReportsTheServiceReadyAfterThePulseShowedAndItAnswered)
{
    EXPECT_THAT(m_actions.Taken(), IsEmpty());
    ShowMissing();
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    m_repair.ProbeAnswered(":1.1", ProbeResult::alive, m_now);
    EXPECT_THAT(m_actions.Taken(), ElementsAre("ready :1.1"));
    EXPECT_FALSE(m_repair.NextWake().has_value());
}

TEST_F(AClientsRepairWithAPulseMissing, ReportsAServiceReadyThatCannotBeAsked)
{
    ShowMissing();
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    m_repair.ProbeAnswered(":1.1", ProbeResult::unanswerable, m_now);
    EXPECT_THAT(m_actions.Taken(), ElementsAre("ready :1.1"));
}

TEST_F(AClientsRepairWithAPulseMissing, AsksASilentServiceUntilItAnswers)
{
    ShowMissing();
    for (int i = 0; i < 5; ++i) {
        ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
        m_repair.ProbeAnswered(":1.1", ProbeResult::silent, m_now);
    }
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    m_repair.ProbeAnswered(":1.1", ProbeResult::alive, m_now);
    EXPECT_THAT(m_actions.Taken(), ElementsAre("ready :1.1"));
}

TEST_F(AClientsRepairWithAPulseMissing, AsksAgainWhenAnotherPulseGotLostMeanwhile)
{
    ShowMissing();
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    m_repair.Require(Stage::syn, m_now);
    m_repair.ProbeAnswered(":1.1", ProbeResult::alive, m_now);
    EXPECT_THAT(m_actions.Taken(), IsEmpty());
    ShowMissing();
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    m_repair.ProbeAnswered(":1.1", ProbeResult::alive, m_now);
    EXPECT_THAT(m_actions.Taken(), ElementsAre("ready :1.1"));
}

TEST_F(AClientsRepairWithAPulseMissing, NeverReportsAServiceReadyThatIsGone)
{
    ShowMissing();
    ASSERT_THAT(NextActions(), ElementsAre("probe :1.1"));
    m_actions.wiring.clear();
    m_repair.PartnerGone(":1.1");
    m_repair.ProbeAnswered(":1.1", ProbeResult::alive, m_now);
    EXPECT_THAT(m_actions.Taken(), IsEmpty());
    EXPECT_FALSE(m_repair.NextWake().has_value());
}

}  // namespace
