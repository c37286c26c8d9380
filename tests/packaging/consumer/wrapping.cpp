// A program that puts itself between the channel and GIO, as tests of applications do. It is linked
// with --wrap=g_bus_get_sync.
#include <iostream>

#include "pelmar-dbus-local.h"

extern "C" GDBusConnection* __wrap_g_bus_get_sync(GBusType type, GCancellable* /*cancellable*/,
                                                  GError** error)
{
    std::cout << (type == G_BUS_TYPE_SYSTEM ? "no system bus today" : "which bus?") << std::endl;
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "no system bus today");
    return nullptr;
}

int main()
{
    const PelmarDbusLocal channel("wrapped");
}
