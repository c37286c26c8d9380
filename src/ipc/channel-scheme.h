// How a channel's names on the bus are made of its own name, in the role that the including source
// is compiled for. Internal.
#ifndef PELMAR_CHANNEL_SCHEME_H
#define PELMAR_CHANNEL_SCHEME_H

#include "channel-names.h"
#include "pelmar-dbus-local.h"

#ifdef PELMAR_ROLE_CLIENT
inline namespace pelmar_client {
#endif

// The one class that the channel lets at its private members. What the endpoint does with them is
// in the nested class; everybody else gets the names.
class PelmarChannelAccess {
public:
    class EndpointChannel;

    static constexpr const char* NAME_PREFIX = PelmarDbusLocal::PELMAR_DBUS_PREFIX;
    static constexpr const char* OBJECT_ROOT = PelmarDbusLocal::PELMAR_DBUS_OBJ_NAME;

    static ChannelNames NamesOf(const std::string& channel)
    {
        using Class = PelmarDbusLocal;
        const std::string base = std::string(NAME_PREFIX) + "." + channel;
        const auto names = [&base](const char* side) {
            return std::array<std::string, 3>{base + side + Class::PELMAR_DBUS_SYN_SUFFIX,
                                              base + side + Class::PELMAR_DBUS_SYNACK_SUFFIX,
                                              base + side + Class::PELMAR_DBUS_ACK_SUFFIX};
        };
        return {names(Class::BROADCAST_PREFIX), names(Class::LISTEN_PREFIX),
                std::string(OBJECT_ROOT) + "/" + channel, Class::PELMAR_DBUS_OBJ_IFACE};
    }
};

#ifdef PELMAR_ROLE_CLIENT
}
#endif

#endif
