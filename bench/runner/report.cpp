#include "report.h"

#include <array>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include "peer-report.h"
#include "tables.h"

namespace report {

namespace {

using nlohmann::json;
using statistics::Estimate;
using Relation = Target::Relation;

constexpr double MAX_GROWTH = 1.05;
const std::string BEGIN_MARK = "<!-- results: written by scripts/bench -->";
const std::string END_MARK = "<!-- end of results -->";

// The order of the columns and rows, which JSON does not keep.
const std::vector<std::string> SERVERS = {"channel", "endpoint",  "gdbus",   "gdbus-copy",
                                          "sd-bus",  "sdbus-c++", "libdbus", "unix socket"};

// Of which crowds are measured.
constexpr std::array<const char*, 2> GROWING = {"channel", "endpoint"};
const std::vector<std::string> WAYS = {"endpoint, bridge", "endpoint, bridge, bus only",
                                       "bridge",           "bridge, bus only",
                                       "no bridge",        "mqtt"};

// ---- Targets -------------------------------------------------------------------------------

class TargetList {
public:
    explicit TargetList(const json& results) : m_results(results) {}

    // Time of a Send, as a share of the base server's.
    void Send(const std::string& server, const std::string& base,
              const std::vector<std::string>& sizes, Relation relation, double limit)
    {
        for (const std::string& size : sizes) {
            const Rounds base_rounds = SendRounds(size, base);
            const bool has_floor = server == "channel" && base != "gdbus";
            const Rounds floor =
                has_floor ? statistics::Ratios(SendRounds(size, "gdbus"), base_rounds) : Rounds();
            Add("`Send` of " + SizeText(size) + ", time: " + server + " / " + base, relation, limit,
                "", statistics::Ratios(SendRounds(size, server), base_rounds),
                statistics::Median(floor));
        }
    }

    void Instructions(const std::string& server, const std::string& base,
                      const std::vector<std::string>& sizes, double limit)
    {
        for (const std::string& size : sizes) {
            const json* value = Find(m_results, {"instructions", server, size});
            const json* base_value = Find(m_results, {"instructions", base, size});
            if (value != nullptr && base_value != nullptr)
                Add("`Send` of " + SizeText(size) + ", instructions: " + server + " / " + base,
                    Relation::at_most, limit, "",
                    {value->get<double>() / base_value->get<double>()});
        }
    }

    void Add(const std::string& text, Relation relation, double limit, const std::string& unit,
             const Rounds& values, double floor = 0)
    {
        if (!values.empty())
            m_targets.push_back(
                {text, relation, limit, unit, statistics::Estimated(values), floor});
    }

    std::vector<Target> Take() { return std::move(m_targets); }

private:
    Rounds SendRounds(const std::string& size, const std::string& server) const
    {
        return RoundsAt(m_results, {"send", size, server, "us"});
    }

    const json& m_results;
    std::vector<Target> m_targets;
};

std::vector<Target> ChannelTargets(const json& results)
{
    TargetList list(results);
    const std::vector<std::string> small = {"0", "64", "1024", "16384"};
    const std::vector<std::string> large = {"262144", "1048576"};
    list.Send("channel", "gdbus", small, Relation::at_most, 1.05);
    list.Instructions("channel", "gdbus", small, 1.05);
    list.Send("channel", "sdbus-c++", {"1024"}, Relation::below, 1);
    list.Send("channel", "sdbus-c++", {"16384"}, Relation::at_most, 1.0 / 8);
    list.Send("channel", "sdbus-c++", large, Relation::below, 1);
    list.Send("channel", "gdbus-copy", large, Relation::below, 1);
    list.Send("channel", "sd-bus", large, Relation::at_most, 1.05);
    list.Send("endpoint", "channel", small, Relation::at_most, 1.05);
    list.Send("endpoint", "channel", large, Relation::at_most, 1.05);

    const auto notifications = [&](const std::vector<std::string>& path) {
        std::vector<std::string> whole = {"notifications"};
        whole.insert(whole.end(), path.begin(), path.end());
        return RoundsAt(results, whole);
    };
    list.Add("Notification to 100 partners, time: channel / gdbus", Relation::at_most, 1.10, "",
             statistics::Ratios(notifications({"broadcast", "100", "channel", "us"}),
                                notifications({"broadcast", "100", "gdbus", "us"})));
    list.Add("Notification to 100 partners, server's processor time: channel / gdbus",
             Relation::at_most, 1.10, "",
             statistics::Ratios(notifications({"broadcast", "100", "channel", "server_us"}),
                                notifications({"broadcast", "100", "gdbus", "server_us"})));
    list.Add("Notification from another thread: endpoint - channel", Relation::at_most, 20, "us",
             statistics::Differences(notifications({"single", "endpoint", "us"}),
                                     notifications({"single", "channel", "us"})));
    if (const json* bytes = Find(results, {"library_bytes"}))
        list.Add("Stripped shared library of the channel", Relation::below, 100, "KiB",
                 {bytes->get<double>() / 1024});
    return list.Take();
}

}  // namespace

std::vector<Target> Targets(const json& results)
{
    std::vector<Target> targets = PeerTargets(results);
    const std::vector<Target> of_channel = ChannelTargets(results);
    targets.insert(targets.end(), of_channel.begin(), of_channel.end());
    return targets;
}

namespace {

// Of a single figure there is none.
std::string Interval(const Estimate& value, const char* format)
{
    if (value.low == value.high)
        return "";
    return " (" + Format(format, value.low) + " to " + Format(format, value.high) + ")";
}

std::string Limit(const Target& target)
{
    const bool ratio = target.unit.empty();
    const std::map<Relation, std::string> words = {{Relation::at_most, "at most "},
                                                   {Relation::at_least, "at least "},
                                                   {Relation::below, "below "}};
    return words.at(target.relation) +
           (ratio ? Format("%.4g", target.limit) : Format("%g ", target.limit) + target.unit);
}

std::string Measured(const Target& target)
{
    const bool ratio = target.unit.empty();
    const char* format = ratio ? "%.3f" : "%.1f";
    return Format(format, target.value.median) + (ratio ? "" : " " + target.unit) +
           Interval(target.value, format);
}

}  // namespace

std::string Verdict(const Target& target)
{
    return (target.Holds() ? "holds    " : "MISSED   ") + target.text + ": " + Measured(target) +
           ", " + Limit(target);
}

// ---- Tables --------------------------------------------------------------------------------

namespace {

std::string SendTables(const json& results)
{
    constexpr Column columns[] = {
        {"Median, microseconds", "us", MedianText},
        {"99th percentile, microseconds", "p99_us", NumberText},
        {"Calls a second", "per_second", NumberText},
        {"Processor time of the server a call, microseconds", "server_us", MedianText},
        {"How often a thread of the server waits during a call", "waits", NumberText},
        {"Page faults of the server a call", "page_faults", NumberText},
    };
    const std::set<std::string> of_server = {"server_us", "waits", "page_faults"};
    const json& send = results.at("send");
    std::string text = "### Round trips of Send\n\n";
    for (const Column& column : columns) {
        text += std::string(column.title) + ":\n\n";
        text += ServerTable(
            "Server", NumericKeys(send), SizeText,
            [&](const std::string& server, const std::string& size) {
                const bool relay = server == "unix socket";  // of which one half would be counted
                return relay && of_server.count(column.key) != 0
                           ? nullptr
                           : Find(send, {size, server, column.key});
            },
            column.text, SERVERS);
    }
    return text;
}

// How many times as long the one takes as the other.
const std::vector<std::pair<std::string, std::string>> COMPARED_WAYS = {
    {"endpoint, bridge", "endpoint, bridge, bus only"},
    {"bridge", "bridge, bus only"},
    {"bridge", "no bridge"},
    {"bridge", "mqtt"},
};

json BridgeShares(const json& bridge)
{
    json shares;
    for (const auto& [size, ways] : bridge.items()) {
        for (const auto& [way, base] : COMPARED_WAYS)
            shares[size][way + " / " + base] =
                statistics::Ratios(RoundsAt(ways, {way, "us"}), RoundsAt(ways, {base, "us"}));
    }
    return shares;
}

std::string BridgeTables(const json& results)
{
    constexpr Column columns[] = {
        {"Median, microseconds", "us", MedianText},
        {"99th percentile, microseconds", "p99_us", NumberText},
        {"Calls a second, one after the other", "per_second", NumberText},
        {"Processor time a call of the service, or the responder, and of the bridges on the way, "
         "microseconds",
         "server_us", MedianText},
    };
    const json& bridge = results.at("bridge");
    const std::vector<std::string> sizes = NumericKeys(bridge);
    std::string text = "### Round trips through the MQTT bridge\n\n";
    for (const Column& column : columns) {
        text += std::string(column.title) + ":\n\n";
        text += ServerTable(
            "Way", sizes, SizeText,
            [&](const std::string& way, const std::string& size) {
                return Find(bridge, {size, way, column.key});
            },
            column.text, WAYS);
    }
    const json shares = BridgeShares(bridge);
    std::vector<std::string> names;
    names.reserve(COMPARED_WAYS.size());
    for (const auto& [way, base] : COMPARED_WAYS)
        names.push_back(way + " / " + base);
    return text + "How many times as long it takes, median of the rounds:\n\n" +
           ServerTable(
               "", sizes, SizeText,
               [&](const std::string& share, const std::string& size) {
                   return Find(shares, {size, share});
               },
               MedianText, names);
}

// In units of the message, where that is so large that its pieces are seen.
std::string ProfileTables(const json& results)
{
    const json& profile = results.at("profile");
    const auto of_message = [&](const char* key) {
        json shares;
        for (const auto& [size, servers] : profile.items()) {
            constexpr double least = 16 * 1024;
            if (std::stod(size) < least)
                continue;
            for (const auto& [server, figures] : servers.items())
                shares[size][server] = figures.at(key).get<double>() / std::stod(size);
        }
        return shares;
    };
    const auto table = [](const json& figures) {
        return ServerTable(
            "Server", NumericKeys(figures), SizeText,
            [&](const std::string& server, const std::string& size) {
                return Find(figures, {size, server});
            },
            NumberText, SERVERS);
    };
    json system_calls;
    for (const auto& [size, servers] : profile.items()) {
        for (const auto& [server, figures] : servers.items())
            system_calls[size][server] = figures.at("system_calls");
    }
    std::string text =
        "### Profile of the server for one Send\n\nSystem calls:\n\n" + table(system_calls);
    const json copied = of_message("copied_bytes");
    if (!copied.empty())
        text += "Copied in large blocks, in sizes of the message:\n\n" + table(copied) +
                "Filled with one value, such as zero, in sizes of the message:\n\n" +
                table(of_message("filled_bytes"));
    return text;
}

std::string InstructionTable(const json& results)
{
    return "### Instructions of the server for one Send\n\n" +
           CountsTable("Server", results.at("instructions"), SERVERS);
}

std::string NotificationTables(const json& results)
{
    const json& notifications = results.at("notifications");
    const json& broadcast = notifications.at("broadcast");
    const auto partners = [](const std::string& count) {
        return count + (count == "1" ? " partner" : " partners");
    };
    std::string text = "### Notifications of 64 bytes\n\n";
    for (const bool server_time : {false, true}) {
        text += server_time ? "Processor time of the server, microseconds a message:\n\n"
                            : "One after the other, microseconds a message:\n\n";
        text += ServerTable(
            "Server", NumericKeys(broadcast), partners,
            [&](const std::string& server, const std::string& count) {
                return Find(broadcast, {count, server, server_time ? "server_us" : "us"});
            },
            MedianText, SERVERS);
    }
    return text + "A single one, from the order to the receipt, microseconds:\n\n" +
           ServerTable(
               "Server", {"us", "p99_us"},
               [](const std::string& key) { return key == "us" ? "median" : "99th percentile"; },
               [&](const std::string& server, const std::string& key) {
                   return Find(notifications, {"single", server, key});
               },
               [](const json& value) {
                   return value.is_array() ? MedianText(value) : NumberText(value);
               },
               SERVERS);
}

std::string HandshakeTable(const json& results)
{
    Table table({"From the constructor to ready at both ends, milliseconds", "median", "90 %"});
    for (const auto& [name, rounds] : results.at("handshake").items()) {
        table.Row(
            {name, MedianText(rounds), Short(statistics::Quantile(rounds.get<Rounds>(), 0.9))});
    }
    return "### Handshake\n\n" + table.Text();
}

void AddGrowth(Table& table, const std::string& kind, const json& growth)
{
    const std::vector<std::string> counts = NumericKeys(growth);
    const auto kib = [&growth](const std::string& count, const char* key) {
        return growth.at(count).at(key).get<double>() / 1024;
    };
    for (const std::string& count : counts) {
        const json& row = growth.at(count);
        const double service = kib(count, "service_bytes");
        const int more = std::stoi(count) - std::stoi(counts.front());
        const double per_partner = (service - kib(counts.front(), "service_bytes")) / more;
        table.Row({kind, count, NumberText(row.at("next_handshake_ms")),
                   NumberText(row.at("pulse_us")), NumberText(row.at("pulse_us_per_client")),
                   Format("%.0f", service), more > 0 ? Short(per_partner) : "",
                   Format("%.0f", kib(count, "daemon_bytes"))});
    }
}

std::string GrowthTable(const json& results)
{
    Table table({"Both ends", "partners", "next handshake, ms", "a pulse, all processors' time, us",
                 "of it a client, us", "service, KiB", "of it a partner, KiB", "bus daemon, KiB"});
    for (const char* kind : GROWING) {
        if (const json* growth = Find(results, {"growth", kind}))
            AddGrowth(table, kind, *growth);
    }
    return "### As partners grow\n\n" + table.Text();
}

std::string MemoryTable(const json& results)
{
    Table table({"An idle server", "KiB of its own"});
    for (const std::string& server : SERVERS) {
        if (const json* bytes = Find(results, {"memory", server}))
            table.Row({server, Format("%.0f", bytes->get<double>() / 1024)});
    }
    return "### Memory\n\n" + table.Text();
}

std::string PartsTable(const json& results)
{
    Table table({"Part / bytes", "processor time, nanoseconds"});
    for (const json& part : results.at("parts")) {
        if (part.value("aggregate_name", "median") == "median")
            table.Row({part.at("run_name").get<std::string>(), NumberText(part.at("cpu_time"))});
    }
    return "### Parts of the way through the channel\n\n" + table.Text();
}

std::string TargetTable(const std::vector<Target>& targets)
{
    Table table({"Target", "measured (95 % interval)", "wanted", "holds", "bare GDBus"});
    for (const Target& target : targets)
        table.Row({target.text, Measured(target), Limit(target),
                   target.Holds() ? "yes" : "**missed**",
                   target.floor > 0 ? Format("%.3f", target.floor) : ""});
    return "### Targets\n\n" + table.Text();
}

std::string Introduction(const json& results)
{
    const json& machine = results.at("machine");
    std::ostringstream text;
    const bool precedence = machine.at("precedence").get<bool>();
    text << "Run of " << results.at("date").get<std::string>() << " (`"
         << results.at("effort").get<std::string>() << "`) on one of "
         << machine.at("processors").get<int>() << " processors ("
         << machine.at("processor").get<std::string>() << "), "
         << machine.at("kernel").get<std::string>() << "; "
         << machine.at("libraries").get<std::string>() << "; dbus-daemon "
         << machine.at("dbus_daemon").get<std::string>()
         << ". Load of the machine before and after: "
         << Format("%.1f", machine.at("load_before").get<double>()) << " and "
         << Format("%.1f", machine.at("load_after").get<double>())
         << (precedence ? ", over which the run had precedence.\n\n" : ".\n\n");
    return text.str();
}

}  // namespace

std::string Markdown(const json& results)
{
    struct Section {
        const char* key;
        std::string (*text)(const json& results);
    };
    constexpr Section sections[] = {
        {"request", RequestTables},
        {"request-on-two", RequestOnTwoTables},
        {"deliveries", DeliveryTables},
        {"idle-partners", IdlePartnersTable},
        {"handlers", HandlersTable},
        {"request-instructions", RequestInstructionsTable},
        {"send", SendTables},
        {"profile", ProfileTables},
        {"instructions", InstructionTable},
        {"bridge", BridgeTables},
        {"notifications", NotificationTables},
        {"handshake", HandshakeTable},
        {"growth", GrowthTable},
        {"memory", MemoryTable},
        {"parts", PartsTable},
    };
    std::string text = Introduction(results);
    const std::vector<Target> targets = Targets(results);
    if (!targets.empty())
        text += TargetTable(targets);
    for (const Section& section : sections) {
        if (results.contains(section.key))
            text += section.text(results);
    }
    return text;
}

// ---- Plots ---------------------------------------------------------------------------------

void WritePlotData(const json& results, const std::string& folder)
{
    WritePeerPlotData(results, folder);
    if (const json* send = Find(results, {"send"}))
        WriteServerData(folder + "/send.dat", *send, SizeText, SERVERS);
    if (const json* bridge = Find(results, {"bridge"}))
        WriteServerData(folder + "/bridge.dat", *bridge, SizeText, WAYS);
    if (const json* broadcast = Find(results, {"notifications", "broadcast"}))
        WriteServerData(
            folder + "/notifications.dat", *broadcast,
            [](const std::string& count) { return count; }, SERVERS);
    for (const char* kind : GROWING) {
        const json* growth = Find(results, {"growth", kind});
        if (growth == nullptr)
            continue;
        std::ofstream data(folder + "/growth-" + kind + ".dat");
        data << "partners handshake pulse\n";
        for (const std::string& count : NumericKeys(*growth))
            data << count << " " << growth->at(count).at("next_handshake_ms").get<double>() << " "
                 << growth->at(count).at("pulse_us").get<double>() / 1000 << "\n";
    }
}

// ---- Baseline ------------------------------------------------------------------------------

json Baseline(const json& results)
{
    json baseline = {{"libraries", results.at("machine").at("libraries")}};
    for (const std::string server : {"channel", "endpoint"})
        baseline["instructions"][server] = results.at("instructions").at(server);
    if (const json* counts = Find(results, {"request-instructions"}))
        baseline["request-instructions"] = *counts;
    return baseline;
}

namespace {

// Adds the line of one count; true when it has grown.
bool CompareCount(std::ostream& text, double count, const json* base)
{
    if (base == nullptr) {
        text << "NOT IN THE BASELINE\n";
        return true;
    }
    const double ratio = count / base->get<double>();
    const bool grown = ratio > MAX_GROWTH;
    text << "baseline " << base->get<long>() << ": " << Format("%+.1f %%", (ratio - 1) * 100)
         << (grown ? " GROWN\n" : "\n");
    return grown;
}

}  // namespace

std::string CompareWithBaseline(const json& results, const json& baseline, bool& grown)
{
    std::ostringstream text;
    const json current = Baseline(results);
    for (const auto& [group, call] :
         {std::pair("instructions", "a Send"), std::pair("request-instructions", "a Request")}) {
        const json processes = current.value(group, json::object());
        for (const auto& [process, counts] : processes.items()) {
            for (const std::string& size : NumericKeys(counts)) {
                text << process << ", " << SizeText(size) << ": " << counts.at(size).get<long>()
                     << " instructions " << call << ", ";
                const json* base = Find(baseline, {group, process, size});
                if (CompareCount(text, counts.at(size).get<double>(), base))
                    grown = true;
            }
        }
    }
    if (results.at("machine").at("libraries") != baseline.at("libraries"))
        text << "The baseline was counted with other libraries: "
             << baseline.at("libraries").get<std::string>() << "; now "
             << results.at("machine").at("libraries").get<std::string>() << "\n";
    return text.str();
}

// ---- Document ------------------------------------------------------------------------------

std::string ReplaceBetweenMarks(const std::string& document, const std::string& text)
{
    const std::size_t begin = document.find(BEGIN_MARK);
    const std::size_t end = document.find(END_MARK);
    if (begin == std::string::npos || end == std::string::npos || end < begin)
        throw std::runtime_error("the document lacks the lines '" + BEGIN_MARK + "' and '" +
                                 END_MARK + "', between which the results go");
    return document.substr(0, begin) + BEGIN_MARK + "\n\n" + text + document.substr(end);
}

}  // namespace report
