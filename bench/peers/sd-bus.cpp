// sd-bus, by way of the bus daemon: method calls, and signals to all who ask for them.

#include "on-the-bus.h"
#include "sd-handles.h"

namespace {

using peer::Bytes;

BusPtr OpenBusAs(const peer::Arguments& arguments)
{
    BusPtr bus = OpenBus();
    constexpr std::uint64_t do_not_queue = 0;
    Checked(sd_bus_request_name(bus.get(), peer::BusName(arguments).c_str(), do_not_queue),
            "acquiring the name");
    return bus;
}

[[noreturn]] void Loop(sd_bus* bus)
{
    for (;;) {
        if (Checked(sd_bus_process(bus, nullptr), "sd_bus_process") == 0)
            Checked(sd_bus_wait(bus, UINT64_MAX), "sd_bus_wait");
    }
}

Bytes Read(sd_bus_message* message)
{
    const void* array = nullptr;
    std::size_t size = 0;
    Checked(sd_bus_message_read_array(message, 'y', &array, &size), "sd_bus_message_read_array");
    const auto* bytes = static_cast<const char*>(array);
    return {bytes, bytes + size};
}

void Append(sd_bus_message* message, const Bytes& data)
{
    Checked(sd_bus_message_append_array(message, 'y', data.data(), data.size()),
            "sd_bus_message_append_array");
}

int Reply(sd_bus_message* call, void* /*user_data*/, sd_bus_error* /*error*/)
{
    Bytes data = Read(call);
    sd_bus_message* raw = nullptr;
    Checked(sd_bus_message_new_method_return(call, &raw), "sd_bus_message_new_method_return");
    const MessagePtr reply(raw);
    Append(raw, peer::Answer(data));
    return sd_bus_send(nullptr, raw, nullptr);
}

void Serve(const peer::Arguments& arguments)
{
    const BusPtr bus = OpenBusAs(arguments);
    const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Request", "ay", "ay", Reply, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    Checked(sd_bus_add_object_vtable(bus.get(), nullptr, peer::OBJECT_PATH, peer::INTERFACE, vtable,
                                     nullptr),
            "exporting the object");
    peer::Say("ready");
    Loop(bus.get());
}

void Call(sd_bus* bus, const std::string& server, Bytes& data)
{
    sd_bus_message* raw = nullptr;
    Checked(sd_bus_message_new_method_call(bus, &raw, server.c_str(), peer::OBJECT_PATH,
                                           peer::INTERFACE, "Request"),
            "sd_bus_message_new_method_call");
    const MessagePtr call(raw);
    Append(raw, data);
    sd_bus_message* raw_reply = nullptr;
    Checked(sd_bus_call(bus, raw, UINT64_MAX, nullptr, &raw_reply), "sd_bus_call");
    const MessagePtr reply(raw_reply);
    data = Read(raw_reply);
}

void Request(const peer::Arguments& arguments)
{
    const BusPtr bus = OpenBus();
    const std::string server = peer::BusName(arguments);
    peer::RunClient([&](Bytes& data) { Call(bus.get(), server, data); });
}

void Emit(sd_bus* bus, const Bytes& data)
{
    sd_bus_message* raw = nullptr;
    Checked(sd_bus_message_new_signal(bus, &raw, peer::OBJECT_PATH, peer::INTERFACE, "Notify"),
            "sd_bus_message_new_signal");
    const MessagePtr signal(raw);
    Append(raw, data);
    Checked(sd_bus_send(bus, raw, nullptr), "sd_bus_send");
}

// Who is ready has its match rule, so nobody has to be waited for.
void Publish(const peer::Arguments& arguments)
{
    const BusPtr bus = OpenBusAs(arguments);
    peer::RunPublisher([](std::size_t /*receivers*/) {},
                       [&](const Bytes& data) { Emit(bus.get(), data); },
                       [&] { Checked(sd_bus_flush(bus.get()), "sd_bus_flush"); });
}

int CountOne(sd_bus_message* signal, void* user_data, sd_bus_error* /*error*/)
{
    static_cast<peer::Tally*>(user_data)->Add(Read(signal));
    return 0;
}

void Count(const peer::Arguments& arguments)
{
    const BusPtr bus = OpenBus();
    peer::Tally tally;
    Checked(
        sd_bus_add_match(bus.get(), nullptr, peer::MatchRule(arguments).c_str(), CountOne, &tally),
        "sd_bus_add_match");
    peer::Say("ready");
    Loop(bus.get());
}

}  // namespace

int main(int argc, char** argv)
{
    return peer::Run(
        argc, argv,
        {{"server", Serve}, {"client", Request}, {"publisher", Publish}, {"receiver", Count}});
}
