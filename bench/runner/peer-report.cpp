#include "peer-report.h"

#include <algorithm>

#include "tables.h"

namespace report {

namespace {

using nlohmann::json;
using Relation = Target::Relation;

// The order of the rows and of the plots' lines.
const std::vector<std::string> PEERS = {"endpoint", "bare socket",        "ZeroMQ", "nng", "sd-bus",
                                        "GDBus",    "endpoint on the bus"};

// What a Request may take, as a share of what the others take.
struct RequestLimits {
    const char* size;
    double of_socket;
    double of_sd_bus;
    double of_zeromq;
};
constexpr RequestLimits REQUEST_LIMITS[] = {
    {"0", 2.2, 0.45, 0.5},        {"64", 2.2, 0.45, 0.5},     {"1024", 2.2, 0.45, 0.5},
    {"16384", 2.0, 0.3, 0.4},     {"262144", 0.8, 0.06, 0.4}, {"1048576", 0.65, 0.04, 0.35},
    {"16777216", 1.4, 0.15, 0.5},
};

void Add(std::vector<Target>& targets, const std::string& text, Relation relation, double limit,
         const Rounds& values, const std::string& unit = "")
{
    if (!values.empty())
        targets.push_back({text, relation, limit, unit, statistics::Estimated(values)});
}

void AddRequestTargets(std::vector<Target>& targets, const json& results)
{
    for (const RequestLimits& limits : REQUEST_LIMITS) {
        const auto rounds = [&](const char* peer) {
            return RoundsAt(results, {"request", limits.size, peer, "us"});
        };
        const auto add = [&](const char* base, double limit) {
            Add(targets, "`Request` of " + SizeText(limits.size) + ", time: endpoint / " + base,
                Relation::at_most, limit, statistics::Ratios(rounds("endpoint"), rounds(base)));
        };
        add("bare socket", limits.of_socket);
        add("sd-bus", limits.of_sd_bus);
        add("ZeroMQ", limits.of_zeromq);
    }
}

void AddProcessorTargets(std::vector<Target>& targets, const json& results)
{
    const auto rounds = [&](const char* peer, const char* figure) {
        return RoundsAt(results, {"request", "64", peer, figure});
    };
    Add(targets, "`Request` of 64 B, server's processor time: endpoint / endpoint on the bus",
        Relation::at_most, 0.15,
        statistics::Ratios(rounds("endpoint", "server_us"),
                           rounds("endpoint on the bus", "server_us")));
    Add(targets, "`Request` of 64 B, bus daemon's processor time: endpoint", Relation::at_most, 0,
        rounds("endpoint", "daemon_us"), "us");
}

void AddDeliveryTargets(std::vector<Target>& targets, const json& results)
{
    const json* deliveries = Find(results, {"deliveries"});
    if (deliveries == nullptr)
        return;
    // Of the times, so the other way round.
    for (const std::string& count : NumericKeys(*deliveries))
        Add(targets, "Deliveries a second to " + count + ": endpoint / ZeroMQ", Relation::at_least,
            1,
            statistics::Ratios(RoundsAt(*deliveries, {count, "ZeroMQ", "us"}),
                               RoundsAt(*deliveries, {count, "endpoint", "us"})));
}

void AddIdleTargets(std::vector<Target>& targets, const json& results)
{
    const json* idle = Find(results, {"idle-partners"});
    if (idle == nullptr)
        return;
    constexpr double kib = 1024;
    const std::string partners = std::to_string(idle->at("partners").get<int>());
    Add(targets, "`Request` of 64 B, time: with / without " + partners + " idle partners",
        Relation::at_most, 1.1,
        statistics::Ratios(RoundsAt(*idle, {"request", "crowded", "us"}),
                           RoundsAt(*idle, {"request", "alone", "us"})));
    Add(targets, "Descriptors of the server for each of them", Relation::at_most, 1,
        {idle->at("descriptors_each").get<double>()});
    Add(targets, "Memory of the server for each of them", Relation::at_most, 12,
        {idle->at("bytes_each").get<double>() / kib}, "KiB");
}

std::string PeerTable(const json& by_size, const char* figure,
                      std::string (*text)(const json& value))
{
    return ServerTable(
        "Both ends", NumericKeys(by_size), SizeText,
        [&](const std::string& peer, const std::string& size) {
            return Find(by_size, {size, peer, figure});
        },
        text, PEERS);
}

std::string ColumnTables(const json& by_size, const std::vector<Column>& columns)
{
    std::string text;
    for (const Column& column : columns)
        text += std::string(column.title) + ":\n\n" + PeerTable(by_size, column.key, column.text);
    return text;
}

// The endpoint's time as a share of each other's.
std::string ShareTable(const json& by_size)
{
    json shares;
    for (const auto& [size, peers] : by_size.items()) {
        const Rounds endpoint = RoundsAt(peers, {"endpoint", "us"});
        for (const auto& [peer, figures] : peers.items()) {
            if (peer != "endpoint" && !endpoint.empty())
                shares[size][peer]["share"] =
                    statistics::Ratios(endpoint, RoundsAt(figures, {"us"}));
        }
    }
    if (shares.empty())
        return "";
    return "The endpoint's time as a share of theirs, median of the rounds:\n\n" +
           PeerTable(shares, "share", MedianText);
}

// Deliveries a second, as text.
std::string RateText(const json& rounds)
{
    constexpr double microseconds = 1e6;
    return Format("%.0f", microseconds / statistics::Median(rounds.get<Rounds>()));
}

std::string ReceiversText(const std::string& count)
{
    return count + (count == "1" ? " receiver" : " receivers");
}

}  // namespace

std::vector<Target> PeerTargets(const json& results)
{
    std::vector<Target> targets;
    AddRequestTargets(targets, results);
    AddProcessorTargets(targets, results);
    AddDeliveryTargets(targets, results);
    AddIdleTargets(targets, results);
    return targets;
}

std::string RequestTables(const json& results)
{
    const json& request = results.at("request");
    return "### Round trips of Request, the same technology at both ends\n\n" +
           ColumnTables(request, {{"Median, microseconds", "us", MedianText}}) +
           ShareTable(request) +
           ColumnTables(
               request,
               {{"99th percentile, microseconds", "p99_us", NumberText},
                {"Processor time of the server a call, microseconds", "server_us", MedianText},
                {"Processor time of the client a call, microseconds", "client_us", MedianText},
                {"Processor time of the bus daemon a call, microseconds", "daemon_us",
                 MedianText}});
}

std::string RequestOnTwoTables(const json& results)
{
    const json& request = results.at("request-on-two");
    return "### The same on two processors: the client on one, the server and the bus daemon on "
           "the "
           "other\n\n" +
           ColumnTables(request, {{"Median, microseconds", "us", MedianText}}) +
           ShareTable(request) +
           ColumnTables(request, {{"99th percentile, microseconds", "p99_us", NumberText}});
}

std::string DeliveryTables(const json& results)
{
    const json& deliveries = results.at("deliveries");
    const auto table = [&](const char* figure, std::string (*text)(const json& value)) {
        return ServerTable(
            "Both ends", NumericKeys(deliveries), ReceiversText,
            [&](const std::string& peer, const std::string& count) {
                return Find(deliveries, {count, peer, figure});
            },
            text, PEERS);
    };
    return "### Notifications of 64 bytes, the same technology at both ends\n\n"
           "Deliveries a second:\n\n" +
           table("us", RateText) + "Processor time of the publisher a delivery, microseconds:\n\n" +
           table("server_us", MedianText);
}

std::string IdlePartnersTable(const json& results)
{
    constexpr double kib = 1024;
    const json& idle = results.at("idle-partners");
    const std::string partners = std::to_string(idle.at("partners").get<int>());
    const auto median = [&](const char* server) {
        return Short(statistics::Median(RoundsAt(idle, {"request", server, "us"})));
    };
    Table table({"Of an endpoint with " + partners + " idle partners", ""});
    table.Row({"`Request` of 64 B, microseconds", median("crowded")});
    table.Row({"the same without them", median("alone")});
    table.Row({"descriptors of the server for each", NumberText(idle.at("descriptors_each"))});
    table.Row(
        {"memory of the server for each, KiB", Short(idle.at("bytes_each").get<double>() / kib)});
    return "### Idle partners\n\n" + table.Text();
}

std::string HandlersTable(const json& results)
{
    Table table({"The server's handlers run in", "`Request` of 64 B, microseconds",
                 "processor time of the server"});
    for (const std::string place : {"the endpoint's own thread", "the application's GMainContext",
                                    "an executor of the application's"}) {
        if (const json* figures = Find(results, {"handlers", place}))
            table.Row({place, MedianText(figures->at("us")), MedianText(figures->at("server_us"))});
    }
    return "### What the hop to the handlers costs\n\n" + table.Text();
}

std::string RequestInstructionsTable(const json& results)
{
    return "### Instructions for one Request past the bus daemon\n\n" +
           CountsTable("End", results.at("request-instructions"), {"server", "client"});
}

void WritePeerPlotData(const json& results, const std::string& folder)
{
    for (const std::string name : {"request", "request-on-two"}) {
        if (const json* request = Find(results, {name}))
            WriteServerData(folder + "/" + name + ".dat", *request, SizeText, PEERS);
    }
    if (const json* deliveries = Find(results, {"deliveries"}))
        WriteServerData(folder + "/deliveries.dat", *deliveries, ReceiversText, PEERS);
}

}  // namespace report
