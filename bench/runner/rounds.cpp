#include "rounds.h"

#include <cmath>
#include <numeric>

#include "server-process.h"
#include "statistics.h"

namespace {

// Calls a second.
double RateOf(const Sample& sample)
{
    const double sum = std::accumulate(sample.calls.begin(), sample.calls.end(), 0.0);
    return sum > 0 ? static_cast<double>(sample.calls.size()) / sum : 0;
}

struct Record {
    std::vector<double> seconds;
    std::vector<double> processor_seconds;
    std::vector<double> calls;
    std::vector<double> rates;
    std::vector<double> waits;
    std::vector<double> page_faults;
    std::map<std::string, std::vector<double>> others;

    void Add(const Sample& sample)
    {
        seconds.push_back(sample.seconds);
        processor_seconds.push_back(sample.processor_seconds);
        calls.insert(calls.end(), sample.calls.begin(), sample.calls.end());
        rates.push_back(RateOf(sample));
        waits.push_back(sample.waits);
        page_faults.push_back(sample.page_faults);
        for (const auto& [name, seconds_of_other] : sample.others)
            others[name].push_back(seconds_of_other);
    }
};

bool IsEnough(const std::vector<Record>& records, const Effort::Rounds& rounds, double started)
{
    const std::size_t count = records.front().seconds.size();
    if (count < rounds.least)
        return false;
    if (count >= rounds.most || Now() - started > rounds.seconds)
        return true;
    for (const Record& record : records) {
        const auto ratios = statistics::Ratios(records.front().seconds, record.seconds);
        if (statistics::Estimated(ratios).RelativeError() > rounds.precision)
            return false;
    }
    return true;
}

std::vector<double> Microseconds(const std::vector<double>& seconds)
{
    constexpr double nanoseconds = 1e9;
    std::vector<double> rounded;
    rounded.reserve(seconds.size());
    for (const double value : seconds)
        rounded.push_back(std::round(value * nanoseconds / 10) / 100);
    return rounded;
}

}  // namespace

nlohmann::json RunRounds(const std::vector<Contender>& contenders, const Effort::Rounds& rounds)
{
    std::vector<Record> records(contenders.size());
    for (const Contender& contender : contenders)
        contender.sample();  // warms it up
    const double started = Now();
    for (std::size_t round = 0; !IsEnough(records, rounds, started); ++round) {
        for (std::size_t turn = 0; turn < contenders.size(); ++turn) {
            // Each follows each other one in turn.
            const std::size_t index = (turn + round) % contenders.size();
            records[index].Add(contenders[index].sample());
        }
    }
    nlohmann::json results;
    for (std::size_t i = 0; i < contenders.size(); ++i) {
        const Record& record = records[i];
        nlohmann::json& result = results[contenders[i].name];
        result["us"] = Microseconds(record.seconds);
        result["server_us"] = Microseconds(record.processor_seconds);
        for (const auto& [name, seconds] : record.others)
            result[name + "_us"] = Microseconds(seconds);
        if (record.calls.empty())
            continue;
        result["p99_us"] = Microseconds({statistics::Quantile(record.calls, 0.99)}).front();
        result["per_second"] = std::round(statistics::Median(record.rates));
        result["waits"] = statistics::Median(record.waits);
        result["page_faults"] = statistics::Median(record.page_faults);
    }
    return results;
}
