// What the endpoint is given from outside: the name of a channel, and the bytes of any message in
// the place of a partner's answer. The endpoint's source is a part of this one, since both are
// dealt with inside of it.

#include "../../src/endpoint/pelmar-endpoint.cpp"
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

void TryResponse(GVariant* reply, const GError* error)
{
    const PelmarEndpoint::Response response = ResponseOf(reply, error);
    const bool is_ok = response.status == PelmarEndpoint::Status::ok;
    FUZZ_ASSERT(is_ok == (reply != nullptr));
    FUZZ_ASSERT(is_ok == response.error.empty());
    FUZZ_ASSERT(!is_ok || BytesOneByOne(reply) == response.data);
    FUZZ_ASSERT(std::string(PelmarEndpoint::ToString(response.status)) != "unknown status");
}

void TryAnswer(std::string bytes)
{
    GDBusMessage* message =
        g_dbus_message_new_from_blob(reinterpret_cast<guchar*>(bytes.data()), bytes.size(),
                                     G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr);
    if (message == nullptr)
        return;
    // As g_dbus_connection_call_finish does it.
    GError* error = nullptr;
    if (g_dbus_message_to_gerror(message, &error) != FALSE) {
        TryResponse(nullptr, error);
        g_error_free(error);
    } else if (GVariant* body = g_dbus_message_get_body(message);
               body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(ay)")) != FALSE) {
        TryResponse(body, nullptr);
    }
    g_object_unref(message);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    if (input.Below(2) == 0)
        TryName(input.Rest());
    else
        TryAnswer(input.Rest());
    return 0;
}
