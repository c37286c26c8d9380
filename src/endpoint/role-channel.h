// The endpoint's channel in either role, without the role in its type. Internal.
#ifndef PELMAR_ROLE_CHANNEL_INTERFACE_H
#define PELMAR_ROLE_CHANNEL_INTERFACE_H

#include <gio/gio.h>

#include <memory>
#include <string>
#include <vector>

#include "channel-names.h"
#include "handshake-repair.h"
#include "stage.h"

// What a channel tells. Called by the thread that runs its main loop.
class ChannelEvents {
public:
    virtual ~ChannelEvents() = default;

    // With the channel's lock held; as often as the channel itself tells it.
    virtual void OnConnectionReady(bool state, const std::string& partner) = 0;

    // Takes over the invocation.
    virtual void OnMessage(std::vector<char> data, GDBusMethodInvocation* invocation) = 0;
    virtual void OnNotification(std::vector<char>& data) = 0;
};

// A channel that can be destroyed while its main context lives: in the thread that runs it. Nothing
// of it is left on the connection afterwards.
class RoleChannel {
public:
    virtual ~RoleChannel() = default;

    virtual bool HasObject() const = 0;
    virtual HandshakeRepair::Wiring WiringOf(const std::string& partner) const = 0;
    virtual std::vector<std::string> WiredPartners() const = 0;

    // Has the channel do what it does when it sees the partner's pulse, or its end.
    virtual void TakePulseAsSeen(Stage stage, const std::string& partner) = 0;
    virtual void TakeAsVanished(const std::string& partner) = 0;
};

// What there is for each role.
struct ChannelRole {
    HandshakeRepair::Role role;
    ChannelNames (*names_of)(const std::string& channel);
    std::unique_ptr<RoleChannel> (*open)(const std::string& channel, ChannelEvents& events);
};
extern const ChannelRole SERVICE_CHANNEL;
extern const ChannelRole CLIENT_CHANNEL;

#endif
