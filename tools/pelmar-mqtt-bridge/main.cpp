// Carries channels between machines. What it does is in the two sides; here are the start, the
// signals and the end.

#include <mosquitto.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>

#include "attach-side.h"
#include "bus-id.h"
#include "exit-status.h"
#include "offer-side.h"
#include "options.h"
#include "report.h"
#include "supervisor.h"

namespace {

std::unique_ptr<BridgeSide> MakeSide(EventLoop& loop, const Options& options,
                                     const CarriedChannel& channel, BridgeSide::Fatal fatal)
{
    if (channel.side == CarriedChannel::Side::attach)
        return std::make_unique<AttachSide>(loop, options, channel.name, std::move(fatal));
    return std::make_unique<OfferSide>(loop, options, channel.name, std::move(fatal));
}

bool IsBusThere()
{
    std::string error;
    if (AskBusId(error))
        return true;
    report::Error("the system bus cannot be reached (" + error +
                  "): is its daemon running, and --bus or DBUS_SYSTEM_BUS_ADDRESS right?");
    return false;
}

// The loop's thread does the work; this one waits for signals.
int RunUntilSignal(const Options& options, const CarriedChannel& channel, const sigset_t& signals)
{
    std::atomic<int> failure{STATUS_OK};
    EventLoop loop;
    const auto end = [&failure](int status) {
        failure = status;
        kill(getpid(), SIGTERM);
    };
    const std::unique_ptr<BridgeSide> side = MakeSide(loop, options, channel, end);
    loop.Post([&] { side->Start(); });
    int signal = 0;
    do {
        sigwait(&signals, &signal);
        if (signal == SIGUSR1)
            loop.Post([&] { report::Info(side->Count().ToString()); });
    } while (signal != SIGTERM && signal != SIGINT);
    loop.Post([&] {
        side->Stop();
        report::Info(side->Count().ToString());
        loop.End();
    });
    loop.Join();
    if (failure != STATUS_OK)
        return failure;
    return signal == SIGINT ? STATUS_INTERRUPTED : STATUS_OK;
}

int Carry(const Options& options, const CarriedChannel& channel)
{
    report::SetChannel(channel.name);
    const sigset_t signals = BlockSignals();
    if (!IsBusThere())
        return STATUS_BUS;
    mosquitto_lib_init();
    const int status = RunUntilSignal(options, channel, signals);
    mosquitto_lib_cleanup();
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    int status = STATUS_OK;
    const std::optional<Options> options = ParseOptions(argc, argv, status);
    if (!options)
        return status;
    const auto carry = [&](const CarriedChannel& channel) { return Carry(*options, channel); };
    if (options->channels.size() == 1)
        return carry(options->channels.front());
    return CarryEach(options->channels, carry);
}
