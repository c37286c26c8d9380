/// @file
/// Owners of sd-bus objects.
#ifndef PELMAR_BENCH_SD_HANDLES_H
#define PELMAR_BENCH_SD_HANDLES_H

#include <systemd/sd-bus.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

struct BusRelease {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageRelease {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
struct SlotRelease {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

using BusPtr = std::unique_ptr<sd_bus, BusRelease>;
using MessagePtr = std::unique_ptr<sd_bus_message, MessageRelease>;
using SlotPtr = std::unique_ptr<sd_bus_slot, SlotRelease>;

/// Returns what sd-bus returned; throws when that is a failure.
inline int Checked(int result, const std::string& what)
{
    if (result < 0)
        throw std::runtime_error(what + ": " + std::strerror(-result));
    return result;
}

inline BusPtr OpenBus()
{
    sd_bus* bus = nullptr;
    Checked(sd_bus_open_system(&bus), "connecting to the private bus");
    return BusPtr(bus);
}

#endif
