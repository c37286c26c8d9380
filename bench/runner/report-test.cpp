#include "report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using nlohmann::json;
using testing::DoubleNear;
using testing::HasSubstr;
using testing::Not;

json SendOf16Kib(const json& channel_us, const json& gdbus_us)
{
    json results = {{"date", "2026-01-01"}, {"effort", "full"}};
    results["machine"] = {{"processor", "one"},  {"processors", 1},    {"kernel", "Linux"},
                          {"libraries", "GLib"}, {"dbus_daemon", "1"}, {"load_before", 0},
                          {"load_after", 0},     {"precedence", false}};
    results["send"]["16384"] = {{"channel", {{"us", channel_us}}}, {"gdbus", {{"us", gdbus_us}}}};
    return results;
}

json Counts(long instructions)
{
    return {{"machine", {{"libraries", "GLib 2.74.6"}}},
            {"instructions", {{"channel", {{"64", instructions}}}, {"endpoint", {{"64", 1000}}}}}};
}

TEST(AMedian, IsTheMiddleOfWhatWasMeasured)
{
    EXPECT_EQ(statistics::Median({5, 1, 100}), 5);
    EXPECT_EQ(statistics::Median({1, 3}), 2);
    EXPECT_EQ(statistics::Quantile({10, 20, 30}, 1), 30);
}

TEST(AnEstimate, IsNotMovedByAFewSlowRounds)
{
    std::vector<double> rounds(40, 1.0);
    rounds[3] = rounds[17] = rounds[30] = 50;
    const statistics::Estimate estimate = statistics::Estimated(rounds);
    EXPECT_EQ(estimate.median, 1);
    EXPECT_EQ(estimate.high, 1);
    EXPECT_EQ(estimate.RelativeError(), 0);
}

TEST(AnEstimate, HasAWideIntervalWhenTheRoundsDisagree)
{
    const statistics::Estimate estimate = statistics::Estimated({1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    EXPECT_LT(estimate.low, 4);
    EXPECT_GT(estimate.high, 7);
}

// What slows a whole round slows both.
TEST(AReport, ComparesServersWithinTheSameRound)
{
    const auto targets = report::Targets(SendOf16Kib({103, 1030, 206}, {100, 1000, 200}));
    ASSERT_EQ(targets.size(), 1U);
    EXPECT_THAT(targets[0].value.median, DoubleNear(1.03, 1e-9));
    EXPECT_THAT(targets[0].value.high, DoubleNear(1.03, 1e-9));
}

TEST(AReport, SaysThatATargetHolds)
{
    const auto targets = report::Targets(SendOf16Kib({104, 104}, {100, 100}));
    ASSERT_EQ(targets.size(), 1U);
    EXPECT_TRUE(targets[0].Holds());
    EXPECT_EQ(report::Verdict(targets[0]),
              "holds    `Send` of 16 KiB, time: channel / gdbus: 1.040, at most 1.05");
}

TEST(AReport, SaysThatATargetDoesNotHold)
{
    const auto targets = report::Targets(SendOf16Kib({106, 106}, {100, 100}));
    ASSERT_EQ(targets.size(), 1U);
    EXPECT_FALSE(targets[0].Holds());
    EXPECT_THAT(report::Verdict(targets[0]), HasSubstr("MISSED"));
}

// A peer that GDBus itself does not reach is not reached by what is built on it.
TEST(AReport, SaysWhatBareGdbusReaches)
{
    json results = SendOf16Kib({20, 20}, {19, 19});
    results["send"]["16384"]["sdbus-c++"] = {{"us", {100, 100}}};
    const auto targets = report::Targets(results);
    ASSERT_EQ(targets.size(), 2U);
    EXPECT_EQ(targets[0].floor, 0);
    EXPECT_THAT(targets[1].value.median, DoubleNear(0.20, 1e-9));
    EXPECT_THAT(targets[1].floor, DoubleNear(0.19, 1e-9));
    EXPECT_THAT(report::Markdown(results), HasSubstr("| **missed** | 0.190 |"));
}

TEST(AReport, ComparesTheBridgeWithASendWithoutItAndWithMqttAlone)
{
    json results = SendOf16Kib({100}, {100});
    results.erase("send");
    results["bridge"]["64"] = {{"bridge", {{"us", {600, 6000}}}},
                               {"no bridge", {{"us", {100, 1000}}}},
                               {"mqtt", {{"us", {120, 1200}}}}};
    const std::string text = report::Markdown(results);
    EXPECT_THAT(text, HasSubstr("| bridge / no bridge | 6.00 |"));
    EXPECT_THAT(text, HasSubstr("| bridge / mqtt | 5.00 |"));
}

TEST(AReport, ShowsCopiesInSizesOfTheMessageWhereTheyAreLarge)
{
    json results = SendOf16Kib({100}, {100});
    results.erase("send");
    results["profile"]["64"]["gdbus"] = {
        {"system_calls", 29}, {"copied_bytes", 0}, {"filled_bytes", 0}};
    results["profile"]["16384"]["gdbus"] = {
        {"system_calls", 30}, {"copied_bytes", 3 * 16384}, {"filled_bytes", 2 * 16384}};
    const std::string text = report::Markdown(results);
    EXPECT_THAT(text, HasSubstr("| gdbus | 29.0 | 30.0 |"));
    EXPECT_THAT(text, HasSubstr("Copied in large blocks, in sizes of the message:\n\n"
                                "| Server | 16 KiB |\n|---|---:|\n| gdbus | 3.00 |"));
}

json RequestOf(const std::string& size, const json& peers)
{
    json results = SendOf16Kib({100}, {100});
    results.erase("send");
    results["request"][size] = peers;
    return results;
}

TEST(AReport, ComparesTheEndpointWithTheOtherTechnologiesWithinTheSameRound)
{
    const json results = RequestOf("64", {{"endpoint", {{"us", {20, 40}}}},
                                          {"ZeroMQ", {{"us", {40, 80}}}},
                                          {"sd-bus", {{"us", {40, 80}}}}});
    const auto targets = report::Targets(results);
    ASSERT_EQ(targets.size(), 2U);
    EXPECT_EQ(report::Verdict(targets[0]),
              "MISSED   `Request` of 64 B, time: endpoint / sd-bus: 0.500, at most 0.45");
    EXPECT_EQ(report::Verdict(targets[1]),
              "holds    `Request` of 64 B, time: endpoint / ZeroMQ: 0.500, at most 0.5");
    EXPECT_THAT(report::Markdown(results), HasSubstr("| ZeroMQ | 0.500 |\n| sd-bus | 0.500 |\n"));
}

TEST(AReport, WantsNothingOfTheDaemonPastIt)
{
    const auto targets = report::Targets(
        RequestOf("64", {{"endpoint", {{"daemon_us", {0, 0}}, {"server_us", {15, 15}}}},
                         {"endpoint on the bus", {{"server_us", {100, 100}}}}}));
    ASSERT_EQ(targets.size(), 2U);
    EXPECT_TRUE(targets[0].Holds());
    EXPECT_EQ(targets[1].unit, "us");
    EXPECT_TRUE(targets[1].Holds());
}

TEST(AReport, WantsAsManyDeliveriesAsZeroMq)
{
    json results = RequestOf("64", json::object());
    results["deliveries"]["10"] = {{"endpoint", {{"us", {2.0}}}}, {"ZeroMQ", {{"us", {1.0}}}}};
    const auto targets = report::Targets(results);
    ASSERT_EQ(targets.size(), 1U);
    EXPECT_EQ(report::Verdict(targets[0]),
              "MISSED   Deliveries a second to 10: endpoint / ZeroMQ: 0.500, at least 1");
}

TEST(AReport, SaysWhatAnIdlePartnerCosts)
{
    json results = RequestOf("64", json::object());
    results["idle-partners"] = {
        {"partners", 1000},
        {"bytes_each", 6 * 1024},
        {"descriptors_each", 1},
        {"request", {{"crowded", {{"us", {12}}}}, {"alone", {{"us", {10}}}}}}};
    const auto targets = report::Targets(results);
    ASSERT_EQ(targets.size(), 3U);
    EXPECT_EQ(report::Verdict(targets[0]),
              "MISSED   `Request` of 64 B, time: with / without 1000 idle partners: 1.200, "
              "at most 1.1");
    EXPECT_EQ(report::Verdict(targets[2]),
              "holds    Memory of the server for each of them: 6.0 KiB, at most 12 KiB");
}

TEST(AReport, JudgesNothingThatWasNotMeasured)
{
    EXPECT_TRUE(report::Targets(json::object()).empty());
}

TEST(AReport, ComparesInstructionsWithTheBaseline)
{
    bool grown = false;
    const json baseline = report::Baseline(Counts(1000));
    EXPECT_THAT(report::CompareWithBaseline(Counts(1049), baseline, grown),
                HasSubstr("channel, 64 B: 1049 instructions a Send, baseline 1000: +4.9 %\n"));
    EXPECT_FALSE(grown);
    EXPECT_THAT(report::CompareWithBaseline(Counts(1051), baseline, grown),
                HasSubstr("+5.1 % GROWN"));
    EXPECT_TRUE(grown);
}

TEST(AReport, ComparesTheInstructionsOfARequestWithTheBaseline)
{
    bool grown = false;
    json results = Counts(1000);
    results["request-instructions"]["server"]["64"] = 9000;
    const json baseline = report::Baseline(results);
    results["request-instructions"]["server"]["64"] = 9900;
    EXPECT_THAT(
        report::CompareWithBaseline(results, baseline, grown),
        HasSubstr("server, 64 B: 9900 instructions a Request, baseline 9000: +10.0 % GROWN"));
    EXPECT_TRUE(grown);
}

TEST(AReport, TakesACountThatIsNotInTheBaselineForGrown)
{
    bool grown = false;
    const std::string text = report::CompareWithBaseline(
        Counts(1000), {{"libraries", ""}, {"instructions", json::object()}}, grown);
    EXPECT_THAT(text, HasSubstr("NOT IN THE BASELINE"));
    EXPECT_TRUE(grown);
}

TEST(AReport, SaysWhenTheBaselineWasCountedWithOtherLibraries)
{
    bool grown = false;
    json baseline = report::Baseline(Counts(1000));
    EXPECT_THAT(report::CompareWithBaseline(Counts(1000), baseline, grown),
                Not(HasSubstr("other libraries")));
    baseline["libraries"] = "GLib 2.80.0";
    EXPECT_THAT(report::CompareWithBaseline(Counts(1000), baseline, grown),
                HasSubstr("other libraries: GLib 2.80.0; now GLib 2.74.6"));
    EXPECT_FALSE(grown);
}

TEST(AReport, ReplacesWhatIsBetweenTheMarksOfADocument)
{
    const std::string begin = "<!-- results: written by scripts/bench -->";
    const std::string end = "<!-- end of results -->";
    EXPECT_EQ(report::ReplaceBetweenMarks("A\n" + begin + "\nold\n" + end + "\nZ", "new\n"),
              "A\n" + begin + "\n\nnew\n" + end + "\nZ");
}

TEST(AReport, RefusesADocumentWithoutMarks)
{
    EXPECT_THROW(report::ReplaceBetweenMarks("text", "new"), std::runtime_error);
}

}  // namespace
