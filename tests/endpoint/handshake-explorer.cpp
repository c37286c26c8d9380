// The handshake of endpoints, with each other and with plain channels, in every order of events:
// none is told ready early or left out, and all comes to rest. Between plain channels the known
// losses are found, so that the search is known to find them.
//
// What takes minutes runs with PELMAR_EXPLORE=all only.

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "handshake-search.h"

namespace {

using handshakes::Explore;
using handshakes::Fault;
using handshakes::Finding;
using handshakes::Make;
using handshakes::Plan;
using handshakes::ProcessPlan;

constexpr ProcessPlan SERVICE = {ChannelRole::service, Make::endpoint};
constexpr ProcessPlan CLIENT = {ChannelRole::client, Make::endpoint};
constexpr ProcessPlan PLAIN_SERVICE = {ChannelRole::service, Make::plain};
constexpr ProcessPlan PLAIN_CLIENT = {ChannelRole::client, Make::plain};

Plan Of(std::vector<ProcessPlan> processes)
{
    Plan plan;
    plan.processes = std::move(processes);
    return plan;
}

// At any moment, and then it may start again.
Plan Crashing(Plan plan, std::size_t process)
{
    plan.processes[process].may_crash = true;
    plan.processes.push_back(plan.processes[process]);
    plan.processes.back().may_crash = false;
    plan.processes.back().successor_of = static_cast<int>(process);
    return plan;
}

Plan With(Plan plan, const std::vector<bool Plan::*>& options)
{
    for (bool Plan::*option : options)
        plan.*option = true;
    return plan;
}

// Every step by itself.
Plan InFull(Plan plan)
{
    plan.reduced = false;
    return plan;
}

// The bus has noticed the crash before a successor connects. Plain channels need that, and who
// announces itself again.
Plan InTurn(Plan plan)
{
    plan.overlaps = false;
    return plan;
}

// Both ends plain, and judged as if they were endpoints.
Plan Judged(Plan plan)
{
    plan.plain_is_judged = true;
    return plan;
}

Finding Run(const Plan& plan, const std::vector<Fault>& wanted = {})
{
    Finding finding = Explore(plan, wanted);
    std::cout << Describe(plan) << ": " << finding.worlds << " worlds, " << finding.steps
              << " steps, " << finding.machines << " states of an endpoint, " << finding.seconds
              << " s" << std::endl;
    return finding;
}

void ExpectSound(const std::vector<Plan>& plans)
{
    for (const Plan& plan : plans) {
        const Finding finding = Run(plan);
        EXPECT_TRUE(finding.fault == Fault::none) << Describe(plan) << ":\n" << finding.trace;
    }
}

void ExpectFound(const Plan& plan, Fault fault)
{
    for (const bool reduced : {true, false}) {
        Plan either = plan;
        either.reduced = reduced;
        const Finding finding = Run(either, {fault});
        EXPECT_TRUE(finding.fault == fault) << Describe(either) << ": nothing was found";
    }
}

// ---- Of plain channels, what docs/protocol.md calls lost -----------------------------------

TEST(PlainHandshakes, LoseAPulseWhereTwoPulseTheSameName)
{
    ExpectFound(Judged(Of({PLAIN_SERVICE, PLAIN_CLIENT, PLAIN_CLIENT})), Fault::collision);
}

TEST(PlainHandshakes, TakeThePulseForAnotherAsTheirOwn)
{
    ExpectFound(Judged(Of({PLAIN_SERVICE, PLAIN_CLIENT, PLAIN_CLIENT})), Fault::early_ready);
}

TEST(PlainHandshakes, StayHalfWhereBothStartAtTheSameMoment)
{
    ExpectFound(Judged(Of({PLAIN_SERVICE, PLAIN_CLIENT})), Fault::both_half);
}

TEST(PlainHandshakes, LoseAPulseWhereANameIsHeld)
{
    ExpectFound(With(Judged(Of({PLAIN_SERVICE, PLAIN_CLIENT})), {&Plan::holder}), Fault::name_held);
}

TEST(PlainHandshakes, LoseAMessageThatIsSentEarly)
{
    ExpectFound(With(Judged(Of({PLAIN_SERVICE, PLAIN_CLIENT, PLAIN_CLIENT})), {&Plan::traffic}),
                Fault::message_lost);
}

// ---- Of endpoints --------------------------------------------------------------------------

TEST(Handshakes, OfTwoEndpointsEndReadyWhateverTheOrder)
{
    const Plan two = Of({SERVICE, CLIENT});
    ExpectSound({InFull(two), InFull(With(two, {&Plan::traffic})),
                 InFull(With(two, {&Plan::questions_dropped})),
                 InFull(With(two, {&Plan::questions_refused})),
                 With(two, {&Plan::traffic, &Plan::questions_dropped, &Plan::announces_again})});
}

TEST(Handshakes, OfTwoEndpointsEndReadyWhereANameIsHeld)
{
    const Plan two = With(Of({SERVICE, CLIENT}), {&Plan::holder});
    ExpectSound({InFull(two), With(two, {&Plan::traffic, &Plan::questions_dropped}),
                 With(two, {&Plan::holder_is_seen})});
}

TEST(Handshakes, OfTwoEndpointsEndReadyWhereTheServiceCrashes)
{
    const Plan two = Crashing(Of({SERVICE, CLIENT}), 0);
    ExpectSound({With(two, {&Plan::questions_dropped}), With(two, {&Plan::questions_refused}),
                 With(two, {&Plan::holder})});
}

TEST(Handshakes, OfTwoEndpointsEndReadyWhereTheClientCrashes)
{
    const Plan two = Crashing(Of({SERVICE, CLIENT}), 1);
    ExpectSound({With(two, {&Plan::questions_dropped}), With(two, {&Plan::questions_refused}),
                 With(two, {&Plan::traffic})});
}

TEST(Handshakes, OfAnEndpointAndAPlainClientEndReady)
{
    const Plan two = Of({SERVICE, PLAIN_CLIENT});
    ExpectSound({InFull(With(two, {&Plan::traffic})), InFull(With(two, {&Plan::holder})),
                 With(InTurn(Crashing(two, 0)), {&Plan::holder}),
                 With(Crashing(two, 1), {&Plan::holder})});
}

TEST(Handshakes, OfAnEndpointAndAPlainServiceEndReady)
{
    const Plan two = Of({PLAIN_SERVICE, CLIENT});
    ExpectSound({InFull(With(two, {&Plan::traffic})), InFull(With(two, {&Plan::holder})),
                 With(InTurn(Crashing(two, 0)), {&Plan::holder}),
                 With(Crashing(two, 1), {&Plan::holder})});
}

TEST(Handshakes, OfOneServiceAndMixedClientsEndReady)
{
    ExpectSound({Of({SERVICE, CLIENT, PLAIN_CLIENT}), Of({SERVICE, PLAIN_CLIENT, PLAIN_CLIENT}),
                 Of({PLAIN_SERVICE, CLIENT, CLIENT}), Of({PLAIN_SERVICE, CLIENT, PLAIN_CLIENT})});
}

// ---- The long ones -------------------------------------------------------------------------

class LongHandshakes : public testing::Test {
protected:
    void SetUp() override
    {
        const char* explore = std::getenv("PELMAR_EXPLORE");
        if (explore == nullptr || std::string(explore) != "all")
            GTEST_SKIP() << "runs with PELMAR_EXPLORE=all";
    }
};

TEST_F(LongHandshakes, OfTwoEndpointsEndReadyWhateverHappens)
{
    const Plan two = Of({SERVICE, CLIENT});
    const Plan held = With(two, {&Plan::holder});
    for (const std::size_t crashing : {0U, 1U}) {
        const Plan plan = Crashing(held, crashing);
        ExpectSound({InFull(plan), With(plan, {&Plan::traffic}),
                     With(plan, {&Plan::questions_dropped}), With(plan, {&Plan::questions_refused}),
                     With(Crashing(two, crashing), {&Plan::holder_is_seen})});
    }
    ExpectSound({InFull(With(two, {&Plan::holder_is_seen})),
                 With(InTurn(Crashing(two, 0)), {&Plan::announces_again, &Plan::traffic}),
                 With(InTurn(Crashing(two, 1)), {&Plan::announces_again, &Plan::traffic}),
                 With(held, {&Plan::announces_again, &Plan::traffic})});
}

TEST_F(LongHandshakes, OfThreeEndpointsEndReadyWhateverTheOrder)
{
    const Plan three = Of({SERVICE, CLIENT, CLIENT});
    ExpectSound({three, With(three, {&Plan::questions_dropped}),
                 With(three, {&Plan::questions_refused}), With(three, {&Plan::traffic}),
                 With(three, {&Plan::holder})});
}

TEST_F(LongHandshakes, OfTwoServicesAndAClientEndReady)
{
    ExpectSound({Of({SERVICE, SERVICE, CLIENT})});
}

TEST_F(LongHandshakes, OfThreeEndpointsEndReadyWhereOneCrashes)
{
    const Plan three = InTurn(Of({SERVICE, CLIENT, CLIENT}));
    ExpectSound({Crashing(three, 0), Crashing(three, 2)});
}

TEST_F(LongHandshakes, OfAServiceAndMixedClientsEndReadyWhateverHappens)
{
    const Plan one = InTurn(Of({SERVICE, CLIENT, PLAIN_CLIENT}));
    const Plan two = InTurn(Of({SERVICE, PLAIN_CLIENT, PLAIN_CLIENT}));
    ExpectSound({With(one, {&Plan::holder}), Crashing(one, 0),
                 With(Crashing(one, 1), {&Plan::holder}), With(Crashing(one, 2), {&Plan::holder}),
                 With(Crashing(two, 0), {&Plan::holder}), With(Crashing(two, 2), {&Plan::holder}),
                 Of({SERVICE, PLAIN_CLIENT, PLAIN_CLIENT, PLAIN_CLIENT})});
}

TEST_F(LongHandshakes, OfAPlainServiceAndClientsEndReadyWhateverHappens)
{
    const Plan endpoints = InTurn(Of({PLAIN_SERVICE, CLIENT, CLIENT}));
    const Plan mixed = InTurn(Of({PLAIN_SERVICE, CLIENT, PLAIN_CLIENT}));
    ExpectSound({With(endpoints, {&Plan::holder}), Crashing(endpoints, 0), Crashing(endpoints, 2),
                 With(Crashing(mixed, 0), {&Plan::holder}),
                 With(Crashing(mixed, 1), {&Plan::holder}),
                 Of({PLAIN_SERVICE, CLIENT, PLAIN_CLIENT, PLAIN_CLIENT})});
}

}  // namespace
