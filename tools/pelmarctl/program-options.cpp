#include "program-options.h"

namespace {

constexpr const char* EXAMPLES = R"(Examples:
  pelmarctl serve demo --exec 'sha256sum'   answer each message with its digest
  pelmarctl send demo -f FILE               send FILE, print the answer
  pelmarctl notify demo -m 'hello' --all    tell every partner
  pelmarctl listen demo -n 1                wait for one notification
  pelmarctl watch                           see every handshake on the bus
  pelmarctl doctor demo                     find out why a channel does not work

Exit status: 0 ok, 1 other failure, 2 usage, 3 no partner, 4 timeout, 5 refused by the bus's policy,
6 bus unreachable or lost, 7 the partner answered with an error, 8 too large, 130 interrupted.)";

void AddGlobalOptions(CLI::App& app, GlobalOptions& options, Tool& tool)
{
    app.add_option("--bus", options.bus, "The bus's D-Bus address; by default the system bus")
        ->option_text("ADDRESS");
    AddSeconds(app, "--timeout", tool.timeout_seconds, 0.001,
               "How long to wait, for a partner or a reply; by default 10. Commands that go on for "
               "ever end after it");
    app.add_flag("--json", options.json, "One JSON object a line on standard output");
    CLI::Option* quiet = app.add_flag("-q,--quiet", options.quiet, "Errors only");
    app.add_flag("-v,--verbose", options.verbose, "Say more, the channel's log included")
        ->excludes(quiet);
    const std::vector<std::pair<std::string, Output::ColourMode>> colours = {
        {"auto", Output::ColourMode::automatic},
        {"always", Output::ColourMode::always},
        {"never", Output::ColourMode::never}};
    AddChoice(app, "--color", options.colour, colours, "auto (the default), always or never")
        ->option_text("WHEN");
    app.set_version_flag("--version", "pelmarctl " PELMAR_VERSION);
}

void AddCommands(CLI::App& app, Command& chosen)
{
    AddServe(app, chosen);
    AddConnect(app, chosen);
    AddSend(app, chosen);
    AddNotify(app, chosen);
    AddListen(app, chosen);
    AddWatch(app, chosen);
    AddList(app, chosen);
    AddPing(app, chosen);
    AddPolicy(app, chosen);
    AddDoctor(app, chosen);
}

}  // namespace

void AddCommandLine(CLI::App& app, GlobalOptions& options, Tool& tool, Command& chosen)
{
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.require_subcommand(1);
    app.fallthrough();
    AddGlobalOptions(app, options, tool);
    AddCommands(app, chosen);
    app.footer(EXAMPLES);
}

std::string UsageFault(const CLI::App& app, const CLI::ParseError& error)
{
    if (!app.get_subcommands().empty())
        return error.what();
    for (const std::string& word : app.remaining()) {
        if (!word.empty() && word.front() != '-')
            return "'" + word + "' is no command";
    }
    return error.get_name() == "RequiredError" ? "a command is missing" : error.what();
}
