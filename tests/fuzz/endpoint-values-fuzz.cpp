// What the endpoint is given from outside: the name of a channel, and the bytes of any message,
// which it takes apart.

#include "bus-messages.h"
#include "channel-names.h"
#include "input.h"
#include "one-by-one.h"

namespace {

bool MayBeAName(const std::string& name)
{
    constexpr const char* allowed =
        "_0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    return !name.empty() && name.size() <= 222 && (name[0] < '0' || name[0] > '9') &&
           name.find_first_not_of(allowed) == std::string::npos;
}

void TryName(const std::string& name)
{
    const std::string fault = FaultInChannelName(name);
    FUZZ_ASSERT(fault.empty() == MayBeAName(name));
    FUZZ_ASSERT(fault.empty() || fault.find("use 1 to 222 letters") != std::string::npos);
}

bool IsBoundedText(const std::string& text)
{
    return text.size() <= 4096 &&
           g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE;
}

// The endpoint answers callers alone, and the bus names those.
void TryAnswering(GDBusMessage* call)
{
    if (g_dbus_message_get_sender(call) == nullptr)
        return;
    const bus_message::CallId id(call);
    const MessagePtr error =
        bus_message::Error(id, bus_error::FAILED, bus_message::FirstString(call));
    FUZZ_ASSERT(bus_message::ErrorName(error.get()) == bus_error::FAILED);
    FUZZ_ASSERT(IsBoundedText(bus_message::FirstString(error.get())));
    FUZZ_ASSERT(g_dbus_message_get_reply_serial(error.get()) == id.serial);
    FUZZ_ASSERT(id.caller == g_dbus_message_get_destination(error.get()));
}

void TryMessage(std::string bytes)
{
    const MessagePtr held(
        g_dbus_message_new_from_blob(reinterpret_cast<guchar*>(bytes.data()), bytes.size(),
                                     G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr));
    GDBusMessage* message = held.get();
    if (message == nullptr)
        return;
    FUZZ_ASSERT(bus_message::BodySize(message) <= bytes.size());
    if (bus_message::HasBody(message, "(ay)"))
        FUZZ_ASSERT(BytesOneByOne(g_dbus_message_get_body(message)) == bus_message::Bytes(message));
    FUZZ_ASSERT(IsBoundedText(bus_message::ErrorText(message)));
    FUZZ_ASSERT(!bus_message::Number(message) || bus_message::ErrorName(message).empty());
    bus_message::ReadOwnerChange(message);
    bus_message::ReadCredentials(message);
    bus_message::IsUnknownPartner(message);
    if (bus_message::IsCall(message))
        TryAnswering(message);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    switch (input.Below(3)) {
        case 0:
            TryName(input.Rest());
            break;
        case 1:
            TryMessage(input.Rest());
            break;
        default:
            FUZZ_ASSERT(IsBoundedText(bus_message::BoundedText(input.Rest())));
            break;
    }
    return 0;
}
