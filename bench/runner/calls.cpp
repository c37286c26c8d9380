#include "calls.h"

#include "server-process.h"
#include "statistics.h"

namespace {

constexpr unsigned LEAST_CALLS = 3;

double SumOver(const std::vector<pid_t>& processes, double (*figure)(pid_t))
{
    double sum = 0;
    for (const pid_t process : processes)
        sum += figure(process);
    return sum;
}

}  // namespace

Sample CallFor(double seconds, EchoClient& client, const std::vector<pid_t>& servers,
               const EchoClient::Bytes& data)
{
    Sample sample;
    const double waits = SumOver(servers, Waits);
    const double page_faults = SumOver(servers, PageFaults);
    const double processor_started = SumOver(servers, ProcessorSeconds);
    const double started = Now();
    for (double before = started;
         before - started < seconds || sample.calls.size() < LEAST_CALLS;) {
        client.Call(data);
        const double after = Now();
        sample.calls.push_back(after - before);
        before = after;
    }
    sample.seconds = statistics::Median(sample.calls);
    const auto count = static_cast<double>(sample.calls.size());
    sample.processor_seconds = (SumOver(servers, ProcessorSeconds) - processor_started) / count;
    sample.waits = (SumOver(servers, Waits) - waits) / count;
    sample.page_faults = (SumOver(servers, PageFaults) - page_faults) / count;
    return sample;
}
