// A service on sd-bus. It answers out of the message's own buffer.

#include <systemd/sd-bus.h>

#include <cstring>

#include "poll-loop.h"
#include "server.h"

namespace {

int Serve(sd_bus_message* call, void* /*user_data*/, sd_bus_error* /*error*/)
{
    const void* bytes = nullptr;
    std::size_t size = 0;
    sd_bus_message* reply = nullptr;
    int result = sd_bus_message_read_array(call, 'y', &bytes, &size);
    if (result >= 0)
        result = sd_bus_message_new_method_return(call, &reply);
    if (result >= 0)
        result = sd_bus_message_append_array(reply, 'y', bytes, size);
    if (result >= 0)
        result = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return result;
}

void Emit(sd_bus* bus, const std::string& path, const std::string& partner,
          const server::Bytes& data)
{
    sd_bus_message* signal = nullptr;
    sd_bus_message_new_signal(bus, &signal, path.c_str(), names::INTERFACE.c_str(), "SendSignal");
    sd_bus_message_set_destination(signal, partner.c_str());
    sd_bus_message_append_array(signal, 'y', data.data(), data.size());
    sd_bus_send(bus, signal, nullptr);
    sd_bus_message_unref(signal);
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string path = names::Path(server::ChannelOf(argc, argv));
    sd_bus* bus = nullptr;
    const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Send", "ay", "ay", Serve, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    int result = sd_bus_open_system(&bus);
    if (result >= 0)
        result = sd_bus_add_object_vtable(bus, nullptr, path.c_str(), names::INTERFACE.c_str(),
                                          vtable, nullptr);
    const char* name = nullptr;
    if (result >= 0)
        result = sd_bus_get_unique_name(bus, &name);
    if (result < 0)
        server::Die(argv[0], std::strerror(-result));
    server::Say(std::string("serving ") + name);

    std::vector<std::string> partners;
    const auto work = [bus] {
        while (sd_bus_process(bus, nullptr) > 0) {
        }
        return sd_bus_get_events(bus);
    };
    const auto emit = [&](const std::string& partner, const server::Bytes& data) {
        Emit(bus, path, partner, data);
    };
    RunPollLoop(sd_bus_get_fd(bus), work, [&] { return server::Obey(partners, emit); });
    sd_bus_flush_close_unref(bus);
}
