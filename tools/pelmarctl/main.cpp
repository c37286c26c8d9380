// pelmarctl: how the program starts and ends.

#include <glib.h>

#include <csignal>
#include <cstdlib>
#include <sstream>

#include "channel-log.h"
#include "program-options.h"

namespace {

int ReportUsage(const CLI::App& app, const CLI::ParseError& error)
{
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {  // --help, --version
        std::ostringstream text;
        app.exit(error, text);
        Output().Write(text.str());
        return static_cast<int>(Exit::ok);
    }
    const auto commands = app.get_subcommands();
    const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
    Output().Error(Printable(UsageFault(app, error)) + " (see pelmarctl" + command + " --help)");
    return static_cast<int>(Exit::usage);
}

void Apply(const GlobalOptions& options, Tool& tool)
{
    // Before GLib asks for it, and before there is a second thread.
    if (!options.bus.empty())
        setenv("DBUS_SYSTEM_BUS_ADDRESS", options.bus.c_str(), 1);
    if (options.verbose)
        ShowChannelLog();
    const Output::Level level = options.quiet     ? Output::Level::quiet
                                : options.verbose ? Output::Level::verbose
                                                  : Output::Level::normal;
    tool.output.Configure(options.json, level, options.colour);
}

int Run(int argc, char** argv)
{
    Tool tool;
    GlobalOptions options;
    Command chosen;
    CLI::App app("See, drive and diagnose a Pelmar channel from the shell.", "pelmarctl");
    AddCommandLine(app, options, tool, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return ReportUsage(app, error);
    }
    Apply(options, tool);
    try {
        return static_cast<int>(chosen(tool));
    } catch (const Failure& failure) {
        tool.output.Error(failure.what());
        return static_cast<int>(failure.Code());
    }
}

}  // namespace

int main(int argc, char** argv)
{
    KeepStandardDescriptors();
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return Run(argc, argv);
    } catch (const Interrupted& interrupted) {
        return 128 + interrupted.signal;
    } catch (const std::exception& exception) {
        Output().Error(exception.what());
        return static_cast<int>(Exit::failure);
    }
}
