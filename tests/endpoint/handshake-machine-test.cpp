// The state machine of the handshake, step by step: each event, and the actions that follow.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "handshake.h"

namespace {

using Answer = Handshake::Answer;
using Word = Handshake::Word;
using Kind = Handshake::Action::Kind;
using PulseResult = Handshake::PulseResult;
using Traffic = Handshake::Traffic;
using Lines = std::vector<std::string>;

const std::string ONE = ":1.1";
const std::string TWO = ":1.2";

std::string NameOf(Stage stage)
{
    switch (stage) {
        case Stage::syn:
            return "SYN";
        case Stage::syn_ack:
            return "SYN_ACK";
        case Stage::ack:
            return "ACK";
    }
    return "";
}

std::string LineOf(const Handshake::Action& action)
{
    switch (action.kind) {
        case Kind::pulse:
            return "pulse " + NameOf(action.stage);
        case Kind::retry:
            return "retry " + NameOf(action.stage);
        case Kind::retry_refused:
            return "retry later " + NameOf(action.stage);
        case Kind::meet:
            return "meet " + action.partner;
        case Kind::ask:
            return "ask " + action.partner;
        case Kind::wait_for_ack:
            return "wait for ACK " + action.partner;
        case Kind::wait_patiently:
            return "wait patiently " + action.partner;
        case Kind::wait_to_ask:
            return "wait to ask " + action.partner;
        case Kind::tell_ready:
            return "ready " + action.partner;
        case Kind::tell_lost:
            return "lost " + action.partner;
        case Kind::answer_all:
            return "answer all";
        case Kind::stop_listening:
            return "stop listening " + NameOf(action.stage);
    }
    return "";
}

class AHandshake : public testing::Test {
protected:
    explicit AHandshake(ChannelRole role) : m_machine(role) {}

    static Lines LinesOf(const Handshake::Actions& actions)
    {
        Lines lines;
        for (const Handshake::Action& action : actions)
            lines.push_back(LineOf(action));
        return lines;
    }
    Lines Announce() { return LinesOf(m_machine.Announce()); }
    Lines Seen(Stage stage, const std::string& partner = ONE)
    {
        return LinesOf(m_machine.PulseSeen(stage, partner));
    }
    Lines Ended(Stage stage, PulseResult result)
    {
        return LinesOf(m_machine.PulseEnded(stage, result));
    }
    Lines Shown(Stage stage) { return Ended(stage, PulseResult::shown); }
    Lines Missed(Stage stage) { return Ended(stage, PulseResult::missed); }
    Lines Refused(Stage stage) { return Ended(stage, PulseResult::refused); }
    Lines Retry(Stage stage) { return LinesOf(m_machine.Retry(stage)); }
    Lines Met(const std::string& partner = ONE) { return LinesOf(m_machine.Met(partner)); }
    Lines Answered(Answer answer, const std::string& partner = ONE)
    {
        return LinesOf(m_machine.Answered(partner, answer));
    }
    Lines TimeOver(const std::string& partner = ONE)
    {
        return LinesOf(m_machine.TimeOver(partner));
    }
    Lines Gone(const std::string& partner = ONE) { return LinesOf(m_machine.Gone(partner)); }
    Lines Asked(const std::string& partner = ONE) { return LinesOf(m_machine.Asked(partner)); }
    Lines TrafficCame(const std::string& partner = ONE)
    {
        return LinesOf(m_machine.TrafficCame(partner));
    }

    void Listen()
    {
        EXPECT_EQ(Lines{"pulse SYN"}, Announce());
        EXPECT_EQ(Lines{"answer all"}, Shown(Stage::syn));
    }

    const Lines NOTHING;
    Handshake m_machine;
};

class AServicesHandshake : public AHandshake {
protected:
    AServicesHandshake() : AHandshake(ChannelRole::service) {}

    // A client that comes now, up to the question.
    void ComeToTheQuestion(const std::string& client = ONE)
    {
        EXPECT_EQ((Lines{"meet " + client, "pulse SYN_ACK"}), Seen(Stage::syn, client));
        EXPECT_EQ(NOTHING, Met(client));
        EXPECT_EQ(Lines{"ask " + client}, Shown(Stage::syn_ack));
    }
    void MakeReady(const std::string& client = ONE)
    {
        ComeToTheQuestion(client);
        EXPECT_EQ(Lines{"wait for ACK " + client}, Answered(Answer::yes, client));
        EXPECT_EQ(Lines{"ready " + client}, Seen(Stage::ack, client));
        EXPECT_TRUE(m_machine.IsReady(client));
    }
};

class AClientsHandshake : public AHandshake {
protected:
    AClientsHandshake() : AHandshake(ChannelRole::client) {}

    void ComeToTheQuestion(const std::string& service = ONE)
    {
        EXPECT_EQ((Lines{"meet " + service, "pulse SYN_ACK"}), Seen(Stage::syn, service));
        EXPECT_EQ(NOTHING, Met(service));
        EXPECT_EQ(Lines{"ask " + service}, Shown(Stage::syn_ack));
    }
};

// ---- The quiet way -------------------------------------------------------------------------

TEST_F(AServicesHandshake, WithAClientThatComesLaterIsOverWithItsAck)
{
    Listen();
    MakeReady();
}

TEST_F(AServicesHandshake, WithAClientThatWasThereIsOverWithTheOwnAck)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse ACK"}), Seen(Stage::syn_ack));
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Met());
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::ack));
    EXPECT_EQ(Lines{"ready " + ONE}, Answered(Answer::yes));
}

TEST_F(AClientsHandshake, WithAServiceThatComesLaterIsOverWithTheOwnSynAck)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ((Lines{"ready " + ONE, "stop listening SYN_ACK", "answer all"}),
              Answered(Answer::yes));
}

TEST_F(AClientsHandshake, WithAServiceThatWasThereIsOverWithTheOwnAck)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse ACK"}), Seen(Stage::syn_ack));
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Met());
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::ack));
    EXPECT_EQ((Lines{"ready " + ONE, "stop listening SYN_ACK", "answer all"}),
              Answered(Answer::yes));
}

TEST_F(AClientsHandshake, GoesOnWithoutItsSynWhenTheServicesIsSeenFirst)
{
    EXPECT_EQ(Lines{"pulse SYN"}, Announce());
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Missed(Stage::syn));
}

// ---- Own pulses ----------------------------------------------------------------------------

TEST_F(AServicesHandshake, PulsesAgainWhatDidNotShow)
{
    EXPECT_EQ(Lines{"pulse SYN"}, Announce());
    EXPECT_EQ(Lines{"retry SYN"}, Missed(Stage::syn));
    EXPECT_EQ(Lines{"pulse SYN"}, Retry(Stage::syn));
    EXPECT_EQ(Lines{"retry later SYN"}, Refused(Stage::syn));
    EXPECT_EQ(Lines{"pulse SYN"}, Retry(Stage::syn));
    EXPECT_EQ(Lines{"answer all"}, Shown(Stage::syn));
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(Lines{"retry SYN_ACK"}, Missed(Stage::syn_ack));
    EXPECT_EQ(Lines{"pulse SYN_ACK"}, Retry(Stage::syn_ack));
}

TEST_F(AServicesHandshake, DoesNotPulseForAPartnerThatWentBeforeTheRetry)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(Lines{"retry SYN_ACK"}, Missed(Stage::syn_ack));
    EXPECT_EQ(NOTHING, Gone());
    EXPECT_EQ(NOTHING, Retry(Stage::syn_ack));
}

TEST_F(AServicesHandshake, ServesAllThatAreOwedAPulseWithOne)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(Lines{"meet " + TWO}, Seen(Stage::syn, TWO));
    EXPECT_EQ(NOTHING, Met());
    EXPECT_EQ(NOTHING, Met(TWO));
    EXPECT_EQ((Lines{"ask " + ONE, "ask " + TWO}), Shown(Stage::syn_ack));
}

TEST_F(AServicesHandshake, WaitsForTheRetryAlsoForANewPartner)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(Lines{"retry SYN_ACK"}, Missed(Stage::syn_ack));
    EXPECT_EQ(Lines{"meet " + TWO}, Seen(Stage::syn, TWO));
    EXPECT_EQ(Lines{"pulse SYN_ACK"}, Retry(Stage::syn_ack));
}

TEST_F(AServicesHandshake, PulsesDifferentNamesAtOnce)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ((Lines{"meet " + TWO, "pulse ACK"}), Seen(Stage::syn_ack, TWO));
    EXPECT_EQ(Lines{"pulse SYN"}, Announce());
}

TEST_F(AServicesHandshake, AnnouncesItselfAgainWithoutOverlap)
{
    EXPECT_EQ(Lines{"pulse SYN"}, Announce());
    EXPECT_EQ(NOTHING, Announce());
    EXPECT_EQ(Lines{"answer all"}, Shown(Stage::syn));
    Listen();
}

TEST_F(AServicesHandshake, KeepsItsPartnersWhenItAnnouncesItselfAgain)
{
    Listen();
    MakeReady();
    Listen();
    EXPECT_TRUE(m_machine.IsReady(ONE));
}

// Its SYN lets the client wire it up as its SYN_ACK does.
TEST_F(AServicesHandshake, OwesNoSynAckAfterASyn)
{
    EXPECT_EQ(Lines{"pulse SYN"}, Announce());
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Met());
    EXPECT_EQ((Lines{"answer all", "ask " + ONE}), Shown(Stage::syn));
    EXPECT_EQ(NOTHING, Missed(Stage::syn_ack));
}

// ---- Before the own SYN has shown ------------------------------------------------------------

TEST_F(AServicesHandshake, TakesASynAckForAPredecessorsBeforeItsOwnSynHasShown)
{
    EXPECT_EQ(Lines{"pulse SYN"}, Announce());
    EXPECT_EQ(Lines{"meet " + ONE}, Seen(Stage::syn_ack));
    EXPECT_EQ(NOTHING, Met());
    EXPECT_EQ((Lines{"answer all", "ask " + ONE}), Shown(Stage::syn));
    EXPECT_EQ((Lines{"wait for ACK " + ONE, "pulse ACK"}), Seen(Stage::syn_ack));
}

TEST_F(AServicesHandshake, TakesAnAckForAPredecessorsBeforeItsOwnSynHasShown)
{
    EXPECT_EQ(Lines{"pulse SYN"}, Announce());
    EXPECT_EQ(Lines{"meet " + ONE}, Seen(Stage::ack));
    EXPECT_EQ(NOTHING, Met());
    EXPECT_EQ((Lines{"answer all", "ask " + ONE}), Shown(Stage::syn));
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Answered(Answer::yes));
}

TEST_F(AServicesHandshake, TakesNoAckForItsOwnBeforeItIsIntroduced)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Seen(Stage::ack));
    EXPECT_EQ(NOTHING, Met());
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::syn_ack));
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Answered(Answer::yes));
}

// ---- The ACKs ------------------------------------------------------------------------------

TEST_F(AServicesHandshake, GivesAClientAnAckWhenItsOwnDoesNotCome)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Answered(Answer::yes));
    EXPECT_EQ((Lines{"wait for ACK " + ONE, "pulse ACK"}), TimeOver());
    EXPECT_EQ(Lines{"ready " + ONE}, Shown(Stage::ack));
}

TEST_F(AServicesHandshake, DoesNotWaitForEverForAnAckThatCannotShow)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Answered(Answer::yes));
    EXPECT_EQ((Lines{"wait for ACK " + ONE, "pulse ACK"}), TimeOver());
    EXPECT_EQ(Lines{"retry ACK"}, Missed(Stage::ack));
    EXPECT_EQ(Lines{"ready " + ONE}, TimeOver());
}

TEST_F(AClientsHandshake, DoesNotWaitForEverForAnAckThatCannotShow)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse ACK"}), Seen(Stage::syn_ack));
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Met());
    EXPECT_EQ(Lines{"retry ACK"}, Missed(Stage::ack));
    EXPECT_EQ(Lines{"ask " + ONE}, TimeOver());
    EXPECT_EQ((Lines{"ready " + ONE, "stop listening SYN_ACK", "answer all"}),
              Answered(Answer::yes));
    EXPECT_EQ(Lines{"pulse ACK"}, Retry(Stage::ack));
}

TEST_F(AClientsHandshake, AcksASecondSynAckWhenTheServiceHasAnswered)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse ACK"}), Seen(Stage::syn_ack));
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Met());
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::ack));
    EXPECT_EQ(NOTHING, Seen(Stage::syn_ack));
    EXPECT_EQ((Lines{"wait for ACK " + ONE, "pulse ACK"}), Answered(Answer::yes));
    EXPECT_EQ((Lines{"ready " + ONE, "stop listening SYN_ACK", "answer all"}), Shown(Stage::ack));
}

TEST_F(AClientsHandshake, IsNotConcernedWithTheAcksOfServices)
{
    Listen();
    EXPECT_EQ(NOTHING, Seen(Stage::ack));
    EXPECT_FALSE(m_machine.Knows(ONE));
}

// ---- The question --------------------------------------------------------------------------

TEST_F(AClientsHandshake, GivesAPartnerTimeThatNeverAnswers)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(Lines{"wait patiently " + ONE}, Answered(Answer::never));
    EXPECT_FALSE(m_machine.IsReady(ONE));
    EXPECT_EQ((Lines{"ready " + ONE, "stop listening SYN_ACK", "answer all"}), TimeOver());
}

TEST_F(AClientsHandshake, AsksAgainWhenItIsNotAnsweredNow)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(Lines{"wait to ask " + ONE}, Answered(Answer::not_now));
    EXPECT_EQ(Lines{"ask " + ONE}, TimeOver());
    EXPECT_EQ((Lines{"ready " + ONE, "stop listening SYN_ACK", "answer all"}),
              Answered(Answer::yes));
}

TEST_F(AServicesHandshake, AsksAgainWhenTheAnswerIsOlderThanItsIntroduction)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(Lines{"pulse SYN_ACK"}, Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Answered(Answer::yes));
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::syn_ack));
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Answered(Answer::yes));
}

TEST_F(AServicesHandshake, HasOneQuestionOpenAtATime)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(Lines{"pulse SYN_ACK"}, Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Shown(Stage::syn_ack));
    EXPECT_EQ(Lines{"ask " + ONE}, Answered(Answer::yes));
}

TEST_F(AServicesHandshake, ForgetsThePatienceThatANewSynMakesPointless)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(Lines{"wait patiently " + ONE}, Answered(Answer::never));
    EXPECT_EQ(Lines{"pulse SYN_ACK"}, Seen(Stage::syn));
    EXPECT_EQ(NOTHING, TimeOver());
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::syn_ack));
}

TEST_F(AServicesHandshake, AsksAgainWithoutThePatienceOfBeforeTheNewSyn)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(Lines{"wait patiently " + ONE}, Answered(Answer::never));
    EXPECT_EQ(Lines{"pulse SYN_ACK"}, Seen(Stage::syn));
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::syn_ack));
}

TEST_F(AServicesHandshake, HasNoUseForTheAnswerOfBeforeANewSyn)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Answered(Answer::yes));
    EXPECT_EQ(Lines{"pulse SYN_ACK"}, Seen(Stage::syn));
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::syn_ack));
}

TEST_F(AServicesHandshake, HasNoUseForTheAckOfBeforeANewSyn)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(NOTHING, Seen(Stage::ack));
    EXPECT_EQ(Lines{"pulse SYN_ACK"}, Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Answered(Answer::yes));
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::syn_ack));
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Answered(Answer::yes));
}

TEST_F(AServicesHandshake, HeedsNoAnswerThatItDidNotAskFor)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Met());
    EXPECT_EQ(NOTHING, Answered(Answer::yes));
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::syn_ack));
}

TEST_F(AServicesHandshake, TakesAPartnerThatAsksAsReadyAlsoBeforeTheOwnAck)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse ACK"}), Seen(Stage::syn_ack));
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Met());
    EXPECT_EQ(Lines{"ready " + ONE}, Asked());
}

// Services wire a client up by the SYN_ACK that answers theirs.
TEST_F(AClientsHandshake, OwesItsSynAckAlsoAfterItsSyn)
{
    EXPECT_EQ(Lines{"pulse SYN"}, Announce());
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Met());
    EXPECT_EQ(Lines{"answer all"}, Shown(Stage::syn));
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::syn_ack));
}

TEST_F(AServicesHandshake, AsksNobodyOfWhomItHasNotLearntWhoItIs)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Shown(Stage::syn_ack));
    EXPECT_EQ(Lines{"ask " + ONE}, Met());
}

TEST_F(AServicesHandshake, TakesAPartnerThatAsksAsReady)
{
    Listen();
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Asked());
    EXPECT_EQ(Lines{"ready " + ONE}, Met());
    EXPECT_EQ(NOTHING, Missed(Stage::syn_ack));
}

TEST_F(AServicesHandshake, IsNotReadyTwiceWhenTheAnswerComesAfterThePartnersQuestion)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(Lines{"ready " + ONE}, Asked());
    EXPECT_EQ(NOTHING, Answered(Answer::not_now));
    EXPECT_EQ(NOTHING, Seen(Stage::ack));
    EXPECT_EQ(NOTHING, Asked());
}

TEST_F(AClientsHandshake, AnswersAStrangerOnlyWhenItsSynHasShown)
{
    EXPECT_EQ(Lines{"pulse SYN"}, Announce());
    EXPECT_EQ(Word::later, m_machine.WordFor(ONE));
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(Word::yes, m_machine.WordFor(ONE));
    EXPECT_EQ(Word::later, m_machine.WordFor(TWO));
    EXPECT_EQ(Lines{"answer all"}, Shown(Stage::syn));
    EXPECT_EQ(Word::yes, m_machine.WordFor(TWO));
}

TEST_F(AClientsHandshake, TellsAStrangerThatItIsUnknownOnceThereIsAService)
{
    EXPECT_EQ(Lines{"pulse SYN"}, Announce());
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Missed(Stage::syn));
    EXPECT_EQ(NOTHING, Met());
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::syn_ack));
    EXPECT_EQ(Word::later, m_machine.WordFor(TWO));
    EXPECT_EQ((Lines{"ready " + ONE, "stop listening SYN_ACK", "answer all"}),
              Answered(Answer::yes));
    EXPECT_EQ(Word::unknown, m_machine.WordFor(TWO));
    EXPECT_EQ(Word::yes, m_machine.WordFor(ONE));
    EXPECT_EQ((Lines{"meet " + TWO, "pulse SYN_ACK"}), Seen(Stage::syn, TWO));
    EXPECT_EQ(Word::yes, m_machine.WordFor(TWO));
}

TEST_F(AServicesHandshake, IntroducesItselfByItsSynToWhomItIsUnknownButOnce)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ((Lines{"wait to ask " + ONE, "pulse SYN"}), Answered(Answer::unknown));
    EXPECT_EQ(NOTHING, TimeOver());
    EXPECT_EQ(Lines{"ask " + ONE}, Shown(Stage::syn));
    EXPECT_EQ(Lines{"wait to ask " + ONE}, Answered(Answer::unknown));
    EXPECT_EQ(Lines{"ask " + ONE}, TimeOver());
    EXPECT_EQ(Lines{"wait for ACK " + ONE}, Answered(Answer::yes));
}

TEST_F(AServicesHandshake, GivesWhomItIsUnknownTimeToLearnOfIt)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ((Lines{"wait to ask " + ONE, "pulse SYN"}), Answered(Answer::unknown));
    EXPECT_EQ(NOTHING, Shown(Stage::syn));
    EXPECT_EQ(Lines{"ask " + ONE}, TimeOver());
}

// ---- Traffic -------------------------------------------------------------------------------

TEST_F(AServicesHandshake, TakesAPartnerThatSendsAsReadyWhenItHasLearntWhoItIs)
{
    Listen();
    EXPECT_EQ(Traffic::of_stranger, m_machine.TrafficOf(ONE));
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(NOTHING, TrafficCame());
    EXPECT_EQ(Traffic::hold, m_machine.TrafficOf(ONE));
    EXPECT_EQ(Lines{"ready " + ONE}, Met());
    EXPECT_EQ(Traffic::deliver, m_machine.TrafficOf(ONE));
    EXPECT_EQ(NOTHING, TrafficCame());
}

// ---- The end of a partner --------------------------------------------------------------------

TEST_F(AServicesHandshake, TellsAPartnerLostOnceAndOnlyIfItWasReady)
{
    Listen();
    MakeReady();
    EXPECT_EQ(Lines{"lost " + ONE}, Gone());
    EXPECT_EQ(NOTHING, Gone());
    EXPECT_FALSE(m_machine.Knows(ONE));
    ComeToTheQuestion(TWO);
    EXPECT_EQ(NOTHING, Gone(TWO));
}

TEST_F(AServicesHandshake, BeginsAnewWithOneThatComesBack)
{
    Listen();
    MakeReady();
    EXPECT_EQ(Lines{"lost " + ONE}, Gone());
    MakeReady();
}

TEST_F(AServicesHandshake, DoesNothingForOneThatHasGone)
{
    Listen();
    ComeToTheQuestion();
    EXPECT_EQ(NOTHING, Gone());
    EXPECT_EQ(NOTHING, Answered(Answer::yes));
    EXPECT_EQ(NOTHING, Met());
    EXPECT_EQ(NOTHING, TimeOver());
    EXPECT_EQ(NOTHING, Asked());
    EXPECT_EQ(NOTHING, TrafficCame());
    EXPECT_FALSE(m_machine.Knows(ONE));
}

TEST_F(AClientsHandshake, AnnouncesItselfAfterAllWhenTheServiceThatSavedItThatIsGone)
{
    EXPECT_EQ(Lines{"pulse SYN"}, Announce());
    EXPECT_EQ((Lines{"meet " + ONE, "pulse SYN_ACK"}), Seen(Stage::syn));
    EXPECT_EQ(NOTHING, Missed(Stage::syn));
    EXPECT_EQ(Lines{"pulse SYN"}, Gone());
    EXPECT_EQ(Lines{"answer all"}, Shown(Stage::syn));
}

TEST_F(AClientsHandshake, StopsListeningToTheSynAckOnceWithTheFirstThatIsReady)
{
    Listen();
    EXPECT_TRUE(m_machine.IsListeningToSynAck());
    ComeToTheQuestion();
    EXPECT_EQ((Lines{"ready " + ONE, "stop listening SYN_ACK", "answer all"}),
              Answered(Answer::yes));
    EXPECT_FALSE(m_machine.IsListeningToSynAck());
    EXPECT_EQ(NOTHING, Seen(Stage::syn_ack, TWO));
    EXPECT_FALSE(m_machine.Knows(TWO));
    EXPECT_EQ(Lines{"lost " + ONE}, Gone());
    ComeToTheQuestion(TWO);
    EXPECT_EQ(Lines{"ready " + TWO}, Answered(Answer::yes, TWO));
}

TEST_F(AServicesHandshake, NeverStopsListening)
{
    Listen();
    MakeReady();
    EXPECT_TRUE(m_machine.IsListeningToSynAck());
    MakeReady(TWO);
}

}  // namespace
