// The parts of a message's way through the channel, each by itself: what a change to one of them
// costs or saves shows here first.
//
//   ConvertFromBus/N    the bytes of an "(ay)" of N bytes as a vector: every message that comes
//   ConvertHandOver/N   a vector of N bytes as an "(ay)", its buffer handed over: every reply
//   ConvertCopy/N       the same over a copy: every notification
//   DispatchSend/N      the channel's handler of a method call, an answer as long as the question
//   DispatchNotify/N    SendNotification to one partner
//   HiddenLogLine       a debug line that nobody wants to see
//
// The dispatch runs up to GIO's door and no further: the calls by which a reply or a signal leaves
// for the bus are replaced by ones that drop it.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include "bus-actor.h"
#include "byte-variant.h"
#include "main-loop.h"
#include "names.h"
#include "pelmar-dbus-local.h"
#include "platform-log.h"

namespace {

// What the channel gave GIO to call. The constructor registers one object.
GDBusInterfaceMethodCallFunc registered_handler = nullptr;

void Drop(GVariant* value)
{
    g_variant_unref(g_variant_ref_sink(value));
}

}  // namespace

// The program's own definitions take the place of GIO's.
extern "C" {

guint g_dbus_connection_register_object(GDBusConnection* connection, const gchar* path,
                                        GDBusInterfaceInfo* interface,
                                        const GDBusInterfaceVTable* vtable, gpointer user_data,
                                        GDestroyNotify free, GError** error)
{
    registered_handler = vtable->method_call;
    using Function = decltype(&g_dbus_connection_register_object);
    const auto real =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, "g_dbus_connection_register_object"));
    return real(connection, path, interface, vtable, user_data, free, error);
}

void g_dbus_method_invocation_return_value(GDBusMethodInvocation* /*invocation*/, GVariant* value)
{
    Drop(value);
}

gboolean g_dbus_connection_emit_signal(GDBusConnection* /*connection*/,
                                       const gchar* /*destination*/, const gchar* /*path*/,
                                       const gchar* /*interface*/, const gchar* /*signal*/,
                                       GVariant* parameters, GError** /*error*/)
{
    Drop(parameters);
    return TRUE;
}
}

namespace {

const char* const CHANNEL = "parts";

class Echo final : public PelmarDbusLocal {
public:
    Echo() : PelmarDbusLocal(CHANNEL) {}
    Bytes HandleMessage(Bytes& data) override { return std::move(data); }
    void HandleConnectionReady(bool state, const std::string& /*partner*/) override
    {
        m_ready = state;
    }
    bool IsReady() const { return m_ready; }

private:
    bool m_ready = false;
};

// A channel with one partner.
struct ConnectedChannel {
    explicit ConnectedChannel(const TestBus& bus) : partner(bus)
    {
        const std::string syn_ack = names::Own(CHANNEL, names::SYN_ACK);
        bool shown = false;
        g_dbus_connection_signal_subscribe(
            partner.Connection(), "org.freedesktop.DBus", "org.freedesktop.DBus",
            "NameOwnerChanged", nullptr, syn_ack.c_str(), G_DBUS_SIGNAL_FLAGS_NONE,
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
               gpointer flag) { *static_cast<bool*>(flag) = true; },
            &shown, nullptr);
        partner.Pulse(names::Peer(CHANNEL, names::SYN));
        IterateUntil([&] { return shown; }, "the channel's SYN_ACK");
        partner.Pulse(names::Peer(CHANNEL, names::ACK));
        IterateUntil([this] { return channel.IsReady(); }, "the channel to be ready");
        bus_connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    }

    Echo channel;
    BusActor partner;
    GDBusConnection* bus_connection = nullptr;
};

ConnectedChannel* connected = nullptr;

struct VariantRelease {
    void operator()(GVariant* value) const { g_variant_unref(value); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantRelease>;

// As it comes off the bus: serialised.
VariantPtr Message(const benchmark::State& state)
{
    VariantPtr message(
        g_variant_ref_sink(BusActor::Body(Bytes(static_cast<std::size_t>(state.range(0)), 'm'))));
    g_variant_get_data(message.get());
    return message;
}

Bytes Buffer(const benchmark::State& state)
{
    return Bytes(static_cast<std::size_t>(state.range(0)), 'm');
}

void ConvertFromBus(benchmark::State& state)
{
    const VariantPtr message = Message(state);
    for ([[maybe_unused]] const auto turn : state)
        benchmark::DoNotOptimize(pelmar_bytes::From(message.get()));
}

// The buffer is handed over and so has to be made each time; making it is not what is measured, but
// pausing the clock would cost more than it does.
void ConvertHandOver(benchmark::State& state)
{
    for ([[maybe_unused]] const auto turn : state)
        Drop(pelmar_bytes::Take(Buffer(state)));
}

void ConvertCopy(benchmark::State& state)
{
    const Bytes data = Buffer(state);
    for ([[maybe_unused]] const auto turn : state)
        Drop(pelmar_bytes::Copy(data));
}

void DispatchSend(benchmark::State& state)
{
    const VariantPtr message = Message(state);
    const std::string path = names::Path(CHANNEL);
    auto* channel = static_cast<PelmarDbusLocal*>(&connected->channel);
    for ([[maybe_unused]] const auto turn : state)
        registered_handler(connected->bus_connection, ":1.1", path.c_str(),
                           names::INTERFACE.c_str(), "Send", message.get(), nullptr, channel);
}

void DispatchNotify(benchmark::State& state)
{
    Bytes data = Buffer(state);
    for ([[maybe_unused]] const auto turn : state)
        connected->channel.SendNotification(data, connected->partner.UniqueName());
}

void HiddenLogLine(benchmark::State& state)
{
    for ([[maybe_unused]] const auto turn : state)
        platform_log_print(PLATFORM_LOG_BUFFER_MAIN, PLATFORM_LOG_DEBUG, "kestrin",
                           "%s: %s(%d) > [%s:%d] sender=%s\n\n", __FILE__, __func__, __LINE__,
                           __func__, __LINE__, ":1.1");
}

void Sizes(benchmark::internal::Benchmark* part)
{
    for (const std::int64_t size : {0, 64, 1024, 16 * 1024, 256 * 1024, 1024 * 1024})
        part->Arg(size);
}

BENCHMARK(ConvertFromBus)->Apply(Sizes);
BENCHMARK(ConvertHandOver)->Apply(Sizes);
BENCHMARK(ConvertCopy)->Apply(Sizes);
BENCHMARK(DispatchSend)->Apply(Sizes);
BENCHMARK(DispatchNotify)->Apply(Sizes);
BENCHMARK(HiddenLogLine);

void Run()
{
    // As in production.
    unsetenv("G_MESSAGES_DEBUG");
    const TestBus bus;
    connected = new ConnectedChannel(bus);  // for good, as channels are
    benchmark::RunSpecifiedBenchmarks();
}

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    try {
        Run();
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "bench-parts: %s\n", exception.what());
        return 1;
    }
}
