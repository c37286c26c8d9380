// policy: prints the bus policy of a channel, or says what is wrong in one.

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "command-line.h"
#include "policy-check.h"
#include "policy-template.h"

namespace {

// A user or a group.
struct Account {
    const char* kind = nullptr;
    std::string name;
};

struct PolicyOptions {
    std::string channel;
    Account service;
    Account client;
    std::optional<std::string> check;
};

std::string Replaced(std::string text, const std::string& what, const std::string& by)
{
    for (std::size_t at = text.find(what); at != std::string::npos;
         at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
    return text;
}

std::string AttributeOf(const Account& account)
{
    return std::string(account.kind) + "=\"" + account.name + "\"";
}

void WarnOfUnknown(const Tool& tool, const Account& account)
{
    const bool is_group = std::string(account.kind) == "group";
    if (!(is_group ? GroupExists(account.name) : UserExists(account.name)))
        tool.output.Note(std::string(account.kind) + " '" + account.name +
                         "' does not exist on this machine; the bus passes over rules for such");
}

Exit Print(const Tool& tool, const PolicyOptions& options)
{
    if (options.service.kind == nullptr)
        throw Failure(Exit::usage, "who is the service? Use --service-user or --service-group");
    if (options.client.kind == nullptr)
        throw Failure(Exit::usage, "who is the client? Use --client-user or --client-group");
    WarnOfUnknown(tool, options.service);
    WarnOfUnknown(tool, options.client);
    std::string text = Replaced(POLICY_TEMPLATE, "@CHANNEL@", options.channel);
    text = Replaced(text, "@SERVICE@", AttributeOf(options.service));
    text = Replaced(text, "@CLIENT@", AttributeOf(options.client));
    if (tool.output.IsJson()) {
        Json record = JsonRecord();
        record["channel"] = options.channel;
        record["policy"] = text;
        tool.output.Write(record);
    } else {
        tool.output.Write(text);
    }
    return Exit::ok;
}

Exit Check(const Tool& tool, const PolicyOptions& options)
{
    const std::string& file = *options.check;
    if (!ReadTextFile(file))
        throw Failure(Exit::failure, "cannot read '" + file + "': " + std::strerror(errno));
    const auto complaints = CheckPolicy(ReadBusConfigFile(file), file, options.channel);
    for (const Complaint& complaint : complaints) {
        if (tool.output.IsJson()) {
            Json record = JsonRecord();
            record["where"] = complaint.where;
            record["problem"] = complaint.text;
            record["remedy"] = complaint.remedy;
            tool.output.Write(record);
        } else {
            tool.output.Write(tool.output.Paint(Colour::bad, complaint.where) +
                              (complaint.text.empty() ? "" : ": " + complaint.text) +
                              "\n    remedy: " + complaint.remedy + "\n");
        }
    }
    tool.output.Note(
        file + ": " +
        (complaints.empty() ? "nothing is wrong" : Count(complaints.size(), "problem")));
    return complaints.empty() ? Exit::ok : Exit::failure;
}

Exit Policy(Tool& tool, const PolicyOptions& options)
{
    return options.check ? Check(tool, options) : Print(tool, options);
}

// The name comes into an XML attribute.
std::string CheckAccountName(const std::string& name)
{
    const auto is_good = [](char character) {
        return g_ascii_isalnum(character) || character == '_' || character == '.' ||
               character == '-';
    };
    if (!name.empty() && std::all_of(name.begin(), name.end(), is_good) &&
        (g_ascii_isalpha(name.front()) || name.front() == '_'))
        return {};
    return "'" + name + "' cannot be the name of a user or group (a number cannot either)";
}

CLI::Option* AddAccount(CLI::App& command, const std::string& side, const char* kind,
                        Account& account)
{
    return command
        .add_option_function<std::string>(
            "--" + side + "-" + kind,
            [kind, &account](const std::string& name) {
                account = {kind, name};
            },
            "The " + std::string(kind) + " that runs the " + side)
        ->option_text(kind[0] == 'u' ? "USER" : "GROUP")
        ->check(CheckAccountName);
}

}  // namespace

void AddPolicy(CLI::App& app, Command& chosen)
{
    const auto options = std::make_shared<PolicyOptions>();
    CLI::App* command =
        AddCommand(app, chosen, "policy", "Print the bus policy of a channel, or check one",
                   "pelmarctl policy demo --service-user alice --client-user bob", options, Policy);
    AddChannel(*command, options->channel)->required();
    CLI::Option* check =
        command->add_option("--check", options->check, "Say what is wrong in this file instead")
            ->option_text("FILE");
    const std::pair<const char*, Account*> sides[] = {{"service", &options->service},
                                                      {"client", &options->client}};
    for (const auto& [side, account] : sides) {
        CLI::Option* user = AddAccount(*command, side, "user", *account)->excludes(check);
        AddAccount(*command, side, "group", *account)->excludes(check)->excludes(user);
    }
}
