// The channel's class keeps its names to itself; those who speak its protocol without it have them
// from channel-names.h.

#include "channel-names.h"

#include <gtest/gtest.h>

#include "pelmar-dbus-local.h"

namespace {

#ifdef PELMAR_ROLE_CLIENT
constexpr ChannelRole ROLE = ChannelRole::client;
#else
constexpr ChannelRole ROLE = ChannelRole::service;
#endif

using Class = PelmarDbusLocal;

ChannelStageNames NamesOfClass(const char* side)
{
    const std::string base = std::string(Class::PELMAR_DBUS_PREFIX) + ".demo" + side;
    return {base + Class::PELMAR_DBUS_SYN_SUFFIX, base + Class::PELMAR_DBUS_SYNACK_SUFFIX,
            base + Class::PELMAR_DBUS_ACK_SUFFIX};
}

TEST(ChannelNames, AreThoseThatTheChannelPulsesAndWatches)
{
    EXPECT_EQ(NamesOfClass(Class::BROADCAST_PREFIX), StageNamesOf("demo", ROLE));
    EXPECT_EQ(NamesOfClass(Class::LISTEN_PREFIX), StageNamesOf("demo", OtherRole(ROLE)));
}

TEST(ChannelNames, AreThoseOfTheObjectThatTheChannelExports)
{
    EXPECT_EQ(std::string(Class::PELMAR_DBUS_OBJ_NAME) + "/demo", ObjectPathOf("demo"));
    EXPECT_STREQ(Class::PELMAR_DBUS_OBJ_IFACE, CHANNEL_INTERFACE);
    EXPECT_STREQ(Class::PELMAR_DBUS_OBJ_METHOD, CHANNEL_METHOD);
    EXPECT_STREQ(Class::PELMAR_DBUS_SIG_NAME, CHANNEL_SIGNAL);
}

}  // namespace
