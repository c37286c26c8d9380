// The bytes of any D-Bus message, as GIO takes them from the bus, to the channel's handlers of
// method calls and of signals.

#include "bus-double.h"
#include "input.h"
#include "one-by-one.h"
#include "pelmar-dbus-local.h"

namespace {

class QuietChannel : public PelmarDbusLocal {
public:
    QuietChannel() : PelmarDbusLocal("fuzz") {}

    std::vector<char> HandleMessage(std::vector<char>& data) override
    {
        messages.push_back(data);
        return {data.rbegin(), data.rend()};
    }
    void HandleNotification(std::vector<char>& data) override { notifications.push_back(data); }
    void HandleConnectionReady(bool /*state*/, const std::string& /*partner*/) override {}

    std::vector<std::vector<char>> messages;
    std::vector<std::vector<char>> notifications;
};

const char* OrEmpty(const gchar* text)
{
    return text != nullptr ? text : "";
}

// What there is to deliver.
struct Delivery {
    explicit Delivery(GDBusMessage* message)
        : sender(OrEmpty(g_dbus_message_get_sender(message))),
          path(OrEmpty(g_dbus_message_get_path(message))),
          interface(OrEmpty(g_dbus_message_get_interface(message))),
          member(OrEmpty(g_dbus_message_get_member(message)))
    {
        GVariant* found = g_dbus_message_get_body(message);
        body = g_variant_ref_sink(found != nullptr ? found : g_variant_new("()"));
        is_bytes = g_variant_is_of_type(body, G_VARIANT_TYPE("(ay)")) != FALSE;
        if (is_bytes)
            bytes = BytesOneByOne(body);
    }
    ~Delivery() { g_variant_unref(body); }
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    const char* sender;
    const char* path;
    const char* interface;
    const char* member;
    GVariant* body;
    bool is_bytes;
    std::vector<char> bytes;
};

// GIO lets only calls of a declared method with declared arguments through.
void DeliverCall(QuietChannel& channel, const Delivery& call)
{
    if (!call.is_bytes)
        return;
    PelmarDbusLocal::cb_MethodCall(channel.m_connection, call.sender, call.path, call.interface,
                                   call.member, call.body, nullptr, &channel);
    const bool is_own = channel.m_object_name == call.path;
    const std::vector<std::vector<char>> expected(is_own ? 1 : 0, call.bytes);
    FUZZ_ASSERT(channel.messages == expected);
    const std::vector<std::vector<char>> replies = bus_double::TakeReplies();
    FUZZ_ASSERT(replies.size() == expected.size());
    FUZZ_ASSERT(!is_own || std::equal(replies[0].rbegin(), replies[0].rend(), call.bytes.begin(),
                                      call.bytes.end()));
}

void DeliverSignal(QuietChannel& channel, const Delivery& signal)
{
    PelmarDbusLocal::cb_SignalCall(channel.m_connection, signal.sender, signal.path,
                                   signal.interface, signal.member, signal.body, &channel);
    const bool counts = signal.is_bytes && channel.m_object_name == signal.path;
    const std::vector<std::vector<char>> expected(counts ? 1 : 0, signal.bytes);
    FUZZ_ASSERT(channel.notifications == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string bytes(reinterpret_cast<const char*>(data), size);
    GDBusMessage* message =
        g_dbus_message_new_from_blob(reinterpret_cast<guchar*>(bytes.data()), bytes.size(),
                                     G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr);
    if (message == nullptr)
        return 0;
    {
        QuietChannel channel;
        const Delivery delivery(message);
        DeliverSignal(channel, delivery);
        DeliverCall(channel, delivery);
    }
    g_object_unref(message);
    bus_double::Reset();
    return 0;
}
