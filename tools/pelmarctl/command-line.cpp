#include "command-line.h"

#include <charconv>
#include <limits>

#include "channel-names.h"

namespace {

constexpr double LONGEST_SECONDS = 86400;

std::optional<std::size_t> ParseCount(const std::string& text)
{
    std::size_t count = 0;
    const char* end = text.data() + text.size();
    const auto [rest, fault] = std::from_chars(text.data(), end, count);
    return fault == std::errc() && rest == end ? std::optional(count) : std::nullopt;
}

}  // namespace

const std::vector<std::pair<std::string, ChannelRole>> ROLE_CHOICES = {
    {"service", ChannelRole::service}, {"client", ChannelRole::client}};

CLI::Option* AddCount(CLI::App& command, const std::string& name, std::size_t& value,
                      std::size_t least, std::size_t most, const std::string& description)
{
    const auto check = [least, most](const std::string& given) -> std::string {
        const auto count = ParseCount(given);
        if (count && *count >= least && *count <= most)
            return {};
        const bool is_bounded = most != std::numeric_limits<std::size_t>::max();
        return "'" + given + "' is no whole number from " + std::to_string(least) +
               (is_bounded ? " up to " + std::to_string(most) : "");
    };
    const auto take = [&value](const std::string& given) {
        value = ParseCount(given).value_or(value);
    };
    return command.add_option_function<std::string>(name, take, description)->check(check);
}

CLI::Option* AddSeconds(CLI::App& command, const std::string& name, std::optional<double>& value,
                        double least, const std::string& description)
{
    const auto check = [least](const std::string& given) -> std::string {
        char* end = nullptr;
        const double seconds = g_ascii_strtod(given.c_str(), &end);
        if (!given.empty() && *end == '\0' && seconds >= least && seconds <= LONGEST_SECONDS)
            return {};
        return "'" + given + "' is no number of seconds " + (least > 0 ? "above" : "from") +
               " 0 up to 86400";
    };
    return command.add_option(name, value, description)->option_text("SECONDS")->check(check);
}

CLI::Option* AddChannel(CLI::App& command, std::string& channel)
{
    return command.add_option("CHANNEL", channel, "The channel's name")
        ->option_text(" ")
        ->check(FaultInChannelName);
}

void AddRole(CLI::App& command, ChannelRole& role)
{
    AddChoice(command, "--role", role, ROLE_CHOICES,
              "Which side to be: service or client (the default)")
        ->option_text("ROLE");
}

void AddFormat(CLI::App& command, Format& format)
{
    const std::vector<std::pair<std::string, Format>> formats = {
        {"raw", Format::raw}, {"line", Format::line}, {"hex", Format::hex}};
    AddChoice(command, "--format", format, formats,
              "How bytes are shown: raw, line (raw and a newline) or hex; by default raw, and hex "
              "on a terminal")
        ->option_text("FORMAT");
}
