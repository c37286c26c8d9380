// ping: round trips of a message, as ping(8) shows those of a packet.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <nlohmann/json.hpp>
#include <numeric>

#include "command-line.h"
#include "session.h"

namespace {

using Clock = EventQueue::Clock;

struct PingOptions {
    std::string channel;
    std::size_t count = 0;
    std::optional<double> interval;
    std::size_t size = 64;
    std::string to;
    ChannelRole role = ChannelRole::client;
};

double Rounded(double milliseconds)
{
    return std::round(milliseconds * 1000) / 1000;
}

std::string TimeText(double milliseconds)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3f ms", milliseconds);
    return text.data();
}

class Pinger {
public:
    Pinger(Tool& tool, const PingOptions& options, Session& session,
           PelmarEndpoint::Partner partner)
        : m_tool(tool),
          m_options(options),
          m_session(session),
          m_partner(std::move(partner)),
          m_payload(options.size, '\0')
    {
    }

    void Run()
    {
        for (Clock::time_point next = Clock::now();
             m_options.count == 0 || m_sent < m_options.count;) {
            m_tool.queue.Wait([] { return false; }, next);
            Round();
            next += Milliseconds(m_options.interval.value_or(1));
        }
    }

    void ShowStatistics() const
    {
        if (m_tool.output.IsJson())
            m_tool.output.Write(StatisticsRecord());
        else
            m_tool.output.Write(StatisticsText());
    }

    // Of the last failure; ok when at least one round trip came back.
    PelmarEndpoint::Status Outcome() const
    {
        return m_times.empty() ? m_failure.status : PelmarEndpoint::Status::ok;
    }
    const PelmarEndpoint::Partner& Partner() const { return m_partner; }
    const std::string& Error() const { return m_failure.error; }

private:
    void Round()
    {
        const Clock::time_point start = Clock::now();
        ++m_sent;
        const auto response = m_session.Request(m_payload, {m_partner}, m_tool.Timeout()).front();
        const double time = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        if (response.status == PelmarEndpoint::Status::ok)
            m_times.push_back(time);
        else
            m_failure = response;
        ShowRound(response, time);
        // Another one would come under another name.
        if (ExitOf(response.status) == Exit::no_partner)
            Require(response.status, m_partner, response.error);
    }

    void ShowRound(const PelmarEndpoint::Response& response, double time) const
    {
        const bool answered = response.status == PelmarEndpoint::Status::ok;
        if (m_tool.output.IsJson()) {
            Json record = JsonRecord();
            record["event"] = "round";
            record["partner"] = m_partner.Name();
            record["sequence"] = m_sent;
            record["status"] = PelmarEndpoint::ToString(response.status);
            if (answered)
                record["reply_size"] = response.data.size();
            if (answered)
                record["time_ms"] = Rounded(time);
            m_tool.output.Write(record);
            return;
        }
        const std::string which = m_partner.Name() + ": seq=" + std::to_string(m_sent);
        m_tool.output.Write(answered ? Count(response.data.size(), "byte") + " from " + which +
                                           " time=" + TimeText(time) + "\n"
                                     : which + " " + Printable(response.error) + "\n");
    }

    struct Statistics {
        double least;
        double average;
        double p99;
        double most;
    };

    Statistics Evaluate() const
    {
        std::vector<double> sorted = m_times;
        std::sort(sorted.begin(), sorted.end());
        const auto count = static_cast<double>(sorted.size());
        const auto p99 = static_cast<std::size_t>(std::ceil(count * 0.99)) - 1;
        return {sorted.front(), std::accumulate(sorted.begin(), sorted.end(), 0.0) / count,
                sorted[p99], sorted.back()};
    }

    Json StatisticsRecord() const
    {
        Json record = JsonRecord();
        record["event"] = "statistics";
        record["partner"] = m_partner.Name();
        record["size"] = m_payload.size();
        record["sent"] = m_sent;
        record["lost"] = m_sent - m_times.size();
        if (!m_times.empty()) {
            const Statistics statistics = Evaluate();
            record["min_ms"] = Rounded(statistics.least);
            record["avg_ms"] = Rounded(statistics.average);
            record["p99_ms"] = Rounded(statistics.p99);
            record["max_ms"] = Rounded(statistics.most);
        }
        return record;
    }

    std::string StatisticsText() const
    {
        const std::size_t lost = m_sent - m_times.size();
        std::string text = "--- " + m_options.channel + ", " + m_partner.Name() + ": " +
                           std::to_string(m_sent) + " sent, " + std::to_string(lost) + " lost";
        if (!m_times.empty()) {
            const Statistics statistics = Evaluate();
            text += "\n--- min " + TimeText(statistics.least) + ", avg " +
                    TimeText(statistics.average) + ", p99 " + TimeText(statistics.p99) + ", max " +
                    TimeText(statistics.most);
        }
        return text + "\n";
    }

    Tool& m_tool;
    const PingOptions& m_options;
    Session& m_session;
    const PelmarEndpoint::Partner m_partner;
    const Bytes m_payload;
    std::size_t m_sent = 0;
    std::vector<double> m_times;
    PelmarEndpoint::Response m_failure;
};

Exit Ping(Tool& tool, const PingOptions& options)
{
    Session session(tool, options.channel, options.role);
    session.Start();
    Pinger pinger(tool, options, session, session.AwaitPartners(options.to, false).front());
    try {
        pinger.Run();
    } catch (...) {
        pinger.ShowStatistics();
        throw;
    }
    pinger.ShowStatistics();
    Require(pinger.Outcome(), pinger.Partner(), pinger.Error());
    return Exit::ok;
}

}  // namespace

void AddPing(CLI::App& app, Command& chosen)
{
    const auto options = std::make_shared<PingOptions>();
    CLI::App* command = AddCommand(app, chosen, "ping", "Measure round trips of a message",
                                   "pelmarctl ping demo -c 5 -s 1024", options, Ping);
    AddChannel(*command, options->channel)->required();
    AddCount(*command, "-c,--count", options->count, 1, std::numeric_limits<std::size_t>::max(),
             "End after this many")
        ->option_text("COUNT");
    AddSeconds(*command, "-i,--interval", options->interval, 0,
               "Seconds between two; by default 1");
    AddCount(*command, "-s,--size", options->size, 0, PelmarEndpoint::MAX_BUS_MESSAGE_BYTES,
             "Bytes of each message; by default 64")
        ->option_text("BYTES");
    command->add_option("--to", options->to, "The partner of this bus name")->option_text("NAME");
    AddRole(*command, options->role);
}
