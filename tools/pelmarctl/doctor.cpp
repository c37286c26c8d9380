// doctor: finds out, in order, why a channel does not work.

#include "doctor.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "command-line.h"
#include "process-info.h"
#include "stage-names.h"

namespace {

constexpr std::size_t CHECK_WIDTH = 11;

struct DoctorOptions {
    std::string channel;
    std::optional<ChannelRole> as;
};

std::string Padded(const std::string& text, std::size_t width)
{
    return text + std::string(width > text.size() ? width - text.size() : 1, ' ');
}

void ExamineChannel(Report& report, Tool& tool, Scene& scene, const DoctorOptions& options)
{
    CheckRights(report, scene);
    CheckHeldNames(report, scene);
    CheckMembers(report, scene);
    CheckHandshakes(report, scene);
    CheckLimits(report, scene);
    if (options.as)
        TakePart(report, tool, scene, *options.as);
}

void Examine(Report& report, Tool& tool, const DoctorOptions& options)
{
    CheckGlib(report);
    std::unique_ptr<Bus> bus;
    try {
        bus = std::make_unique<Bus>(tool.queue, tool.Timeout());
    } catch (const Failure& failure) {
        DiagnoseUnreachableBus(report, failure.what());
        return;
    }
    Scene scene{*bus, options.channel, DaemonOf(*bus), {}, {}, std::nullopt};
    CheckDaemon(report, scene);
    scene.config = ReadBusConfig(scene.daemon.config_file);
    CheckPolicyFiles(report, scene);
    std::set<std::string> known = scene.config.Channels();
    if (!options.channel.empty())
        known.insert(options.channel);
    scene.rules = MatchRules::Read(*bus);
    scene.survey = TakeSurvey(*bus, known, scene.rules);
    if (options.channel.empty())
        CheckLimits(report, scene);
    else
        ExamineChannel(report, tool, scene, options);
}

Exit Doctor(Tool& tool, const DoctorOptions& options)
{
    Report report(tool.output);
    Examine(report, tool, options);
    tool.output.Note(report.Problems() == 0 ? "no problem found"
                                            : Count(report.Problems(), "problem") + " found");
    return report.Outcome();
}

}  // namespace

void Report::Print(Colour colour, const std::string& result, const std::string& check,
                   const std::string& text, const std::string& remedy) const
{
    if (m_output.IsJson()) {
        Json record = JsonRecord();
        record["result"] = result;
        record["check"] = check;
        record["text"] = text;
        if (!remedy.empty())
            record["remedy"] = remedy;
        m_output.Write(record);
        return;
    }
    const std::size_t width = 9;
    std::string lines = m_output.Paint(colour, Padded(result, width)) + Padded(check, CHECK_WIDTH) +
                        Printable(text) + "\n";
    if (!remedy.empty())
        lines += std::string(width + CHECK_WIDTH, ' ') + "remedy: " + Printable(remedy) + "\n";
    m_output.Write(lines);
}

void Report::Good(const std::string& check, const std::string& text)
{
    Print(Colour::good, "ok", check, text, "");
}

void Report::Unknown(const std::string& check, const std::string& text)
{
    Print(Colour::doubtful, "unknown", check, text, "");
}

void Report::Problem(Exit code, const std::string& check, const std::string& cause,
                     const std::string& remedy)
{
    if (m_outcome == Exit::ok)
        m_outcome = code;
    ++m_problems;
    Print(Colour::bad, "problem", check, cause, remedy);
}

std::set<std::string> Scene::Members() const
{
    std::set<std::string> members;
    if (rules)
        members = rules->Members(channel);
    members.erase(bus.UniqueName());
    for (const ChannelObject& object : survey.objects) {
        if (object.channel == channel)
            members.insert(object.name);
    }
    return members;
}

std::optional<ChannelObject> Scene::ObjectOf(const std::string& name) const
{
    const auto found = std::find_if(survey.objects.begin(), survey.objects.end(),
                                    [&](const ChannelObject& object) {
                                        return object.name == name && object.channel == channel;
                                    });
    if (found == survey.objects.end())
        return std::nullopt;
    return *found;
}

std::string Describe(Bus& bus, const std::string& name)
{
    const Credentials credentials = bus.CredentialsOf(name);
    if (!credentials.uid || !credentials.pid)
        return name;
    const std::string command = CommandLineOf(*credentials.pid);
    return name + " (" + UserName(*credentials.uid) + ", pid " + std::to_string(*credentials.pid) +
           (command.empty() ? "" : ", " + command) + ")";
}

void AddDoctor(CLI::App& app, Command& chosen)
{
    const auto options = std::make_shared<DoctorOptions>();
    CLI::App* command = AddCommand(app, chosen, "doctor", "Find out why a channel does not work",
                                   "pelmarctl doctor demo", options, Doctor);
    AddChannel(*command, options->channel);
    AddChoice(
        *command, "--as", options->as, ROLE_CHOICES,
        "Also take part, as service or client, and see how far it goes; the other side sees a "
        "partner come and go")
        ->option_text("ROLE");
}
