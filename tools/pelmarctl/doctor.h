// What doctor finds, and what its steps have in common.
#ifndef PELMARCTL_DOCTOR_H
#define PELMARCTL_DOCTOR_H

#include <optional>
#include <string>
#include <vector>

#include "bus-config.h"
#include "failure.h"
#include "stage-names.h"
#include "survey.h"
#include "tool.h"

// Prints the findings as they come.
class Report {
public:
    explicit Report(const Output& output) : m_output(output) {}

    // Each of: which check, and what it found.
    void Good(const std::string& check, const std::string& text);
    void Unknown(const std::string& check, const std::string& text);
    void Problem(Exit code, const std::string& check, const std::string& cause,
                 const std::string& remedy);

    // That of the first problem.
    Exit Outcome() const { return m_outcome; }
    std::size_t Problems() const { return m_problems; }

private:
    void Print(Colour colour, const std::string& result, const std::string& check,
               const std::string& text, const std::string& remedy) const;

    const Output& m_output;
    Exit m_outcome = Exit::ok;
    std::size_t m_problems = 0;
};

// What is known of the bus.
struct Scene {
    Bus& bus;
    const std::string channel;  // empty: the bus alone
    Daemon daemon;
    BusConfig config;
    Survey survey;
    std::optional<MatchRules> rules;

    // Those that are on the channel: who has its object, and who watches its names.
    std::set<std::string> Members() const;
    std::optional<ChannelObject> ObjectOf(const std::string& name) const;
};

// ":1.5 (root, pid 77, /usr/bin/svc)".
std::string Describe(Bus& bus, const std::string& name);

// The steps.
void CheckGlib(Report& report);
void DiagnoseUnreachableBus(Report& report, const std::string& failure);
void CheckDaemon(Report& report, const Scene& scene);
void CheckLimits(Report& report, const Scene& scene);
void CheckPolicyFiles(Report& report, const Scene& scene);
void CheckRights(Report& report, const Scene& scene);
void CheckHeldNames(Report& report, const Scene& scene);
void CheckMembers(Report& report, const Scene& scene);
void CheckHandshakes(Report& report, const Scene& scene);
void TakePart(Report& report, Tool& tool, const Scene& scene, ChannelRole role);

#endif
