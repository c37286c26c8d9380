// list: the processes on the bus that have a channel's object now.

#include <nlohmann/json.hpp>

#include "bus-config.h"
#include "command-line.h"
#include "process-info.h"
#include "session.h"
#include "survey.h"

namespace {

struct ListOptions {
    std::string channel;
};

std::optional<ChannelRole> RoleOf(const std::optional<MatchRules>& rules,
                                  const ChannelObject& object)
{
    const bool service =
        rules && rules->TakesPart(object.name, object.channel, ChannelRole::service);
    const bool client = rules && rules->TakesPart(object.name, object.channel, ChannelRole::client);
    if (service == client)
        return std::nullopt;
    return service ? ChannelRole::service : ChannelRole::client;
}

template <typename Value>
Json OrNull(const std::optional<Value>& value)
{
    return value ? Json(*value) : Json(nullptr);
}

std::string OrDash(const std::string& text)
{
    return text.empty() ? "-" : Printable(text);
}

struct Row {
    const ChannelObject& object;
    std::optional<ChannelRole> role;
    std::string unit;
    std::string command;
};

Json RecordOf(const Row& row)
{
    Json record = JsonRecord();
    record["channel"] = row.object.channel;
    record["name"] = row.object.name;
    record["role"] = row.role ? Json(NameOf(*row.role)) : Json(nullptr);
    record["uid"] = OrNull(row.object.credentials.uid);
    record["pid"] = OrNull(row.object.credentials.pid);
    record["direct"] = OrNull(row.object.direct);
    record["unit"] = row.unit.empty() ? Json(nullptr) : Json(row.unit);
    record["command"] = row.command.empty() ? Json(nullptr) : Json(row.command);
    return record;
}

std::vector<std::string> CellsOf(const Row& row)
{
    const Credentials& credentials = row.object.credentials;
    return {Printable(row.object.channel),
            row.object.name,
            row.role ? NameOf(*row.role) : "-",
            credentials.uid ? UserName(*credentials.uid) : "-",
            credentials.pid ? std::to_string(*credentials.pid) : "-",
            row.object.direct ? std::to_string(row.object.direct->size()) : "-",
            OrDash(row.unit),
            OrDash(row.command)};
}

void Show(const Tool& tool, const std::vector<Row>& rows)
{
    if (tool.output.IsJson()) {
        for (const Row& row : rows)
            tool.output.Write(RecordOf(row));
        return;
    }
    std::vector<std::vector<std::string>> cells = {
        {"CHANNEL", "NAME", "ROLE", "USER", "PID", "DIRECT", "UNIT", "COMMAND"}};
    for (const Row& row : rows)
        cells.push_back(CellsOf(row));
    tool.output.Write(Table(cells));
}

Exit List(Tool& tool, const ListOptions& options)
{
    Bus bus(tool.queue, tool.Timeout());
    std::set<std::string> known = ReadBusConfig(ConfigFileOf(bus)).Channels();
    if (!options.channel.empty())
        known.insert(options.channel);
    const std::optional<MatchRules> rules = MatchRules::Read(bus);
    const Survey survey = TakeSurvey(bus, known, rules);
    std::vector<Row> rows;
    for (const ChannelObject& object : survey.objects) {
        const bool wanted = options.channel.empty() || object.channel == options.channel;
        if (!wanted || object.state == ObjectState::no_interface)
            continue;
        const auto pid = object.credentials.pid;
        rows.push_back({object, RoleOf(rules, object), pid ? UnitOf(*pid) : "",
                        pid ? CommandLineOf(*pid) : ""});
    }
    if (survey.refused != 0 && !rules)
        tool.output.Note("the bus's policy does not let this user ask " +
                         Count(survey.refused, "connection") + " in general");
    for (const std::string& name : survey.silent)
        tool.output.Note(name + " does not answer: it is stopped, or its main loop does not run");
    if (!rows.empty())
        Show(tool, rows);
    else if (!options.channel.empty())
        throw Failure(Exit::no_partner, "nobody has the object of channel " + options.channel);
    else
        tool.output.Note("nobody has a channel's object");
    return Exit::ok;
}

}  // namespace

void AddList(CLI::App& app, Command& chosen)
{
    const auto options = std::make_shared<ListOptions>();
    CLI::App* command = AddCommand(app, chosen, "list", "Show the processes that are on a channel",
                                   "pelmarctl list", options, List);
    AddChannel(*command, options->channel);
}
