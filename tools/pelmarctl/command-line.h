// How the commands come onto the command line.
#ifndef PELMARCTL_COMMAND_LINE_H
#define PELMARCTL_COMMAND_LINE_H

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "failure.h"
#include "stage-names.h"
#include "tool.h"

// What the command line asks for.
using Command = std::function<Exit(Tool& tool)>;

// CHANNEL, which is checked while the command line is read.
CLI::Option* AddChannel(CLI::App& command, std::string& channel);

// An option whose value is one of a few words.
template <typename Value, typename Choice>
CLI::Option* AddChoice(CLI::App& command, const std::string& name, Value& value,
                       const std::vector<std::pair<std::string, Choice>>& choices,
                       const std::string& description)
{
    const auto check = [choices](const std::string& given) -> std::string {
        std::string words;
        for (const auto& [word, choice] : choices) {
            if (given == word)
                return {};
            words += (words.empty() ? "" : ", ") + word;
        }
        return "'" + given + "' is none of " + words;
    };
    const auto take = [choices, &value](const std::string& given) {
        for (const auto& [word, choice] : choices) {
            if (given == word)
                value = choice;
        }
    };
    return command.add_option_function<std::string>(name, take, description)->check(check);
}

// An option that is a whole number.
CLI::Option* AddCount(CLI::App& command, const std::string& name, std::size_t& value,
                      std::size_t least, std::size_t most, const std::string& description);

// An option that is a time of `least` seconds to a day.
CLI::Option* AddSeconds(CLI::App& command, const std::string& name, std::optional<double>& value,
                        double least, const std::string& description);

extern const std::vector<std::pair<std::string, ChannelRole>> ROLE_CHOICES;

// --role.
void AddRole(CLI::App& command, ChannelRole& role);

// --format.
void AddFormat(CLI::App& command, Format& format);

// Each adds its command to the program's; `chosen` is set when the command line has it.
void AddServe(CLI::App& app, Command& chosen);
void AddConnect(CLI::App& app, Command& chosen);
void AddSend(CLI::App& app, Command& chosen);
void AddNotify(CLI::App& app, Command& chosen);
void AddListen(CLI::App& app, Command& chosen);
void AddWatch(CLI::App& app, Command& chosen);
void AddList(CLI::App& app, Command& chosen);
void AddPing(CLI::App& app, Command& chosen);
void AddPolicy(CLI::App& app, Command& chosen);
void AddDoctor(CLI::App& app, Command& chosen);

// The usual body of those: `Options` holds what the command's options are read into.
template <typename Options>
CLI::App* AddCommand(CLI::App& app, Command& chosen, const std::string& name,
                     const std::string& description, const std::string& example,
                     const std::shared_ptr<Options>& options,
                     Exit (*run)(Tool& tool, const Options& options))
{
    CLI::App* command = app.add_subcommand(name, description)->group("Commands");
    command->footer("The options of pelmarctl itself may be given here too.\n\nExample:\n  " +
                    example);
    command->callback([options, run, &chosen] {
        chosen = [options, run](Tool& tool) { return run(tool, *options); };
    });
    return command;
}

#endif
