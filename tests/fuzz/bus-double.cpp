#include "bus-double.h"

#include <map>
#include <utility>

#include "byte-variant.h"
#include "input.h"
#include "platform-log.h"

namespace {

struct State {
    unsigned request_code = 1;
    bool release_succeeds = true;
    bool fail_proxies = false;
    guint last_id = 0;
    int live_objects = 0;
    std::map<guint, std::string> watches;
    std::map<guint, std::string> subscriptions;  // to partners
    std::vector<guint> stage_subscriptions;
    std::vector<std::string> requested;
    std::vector<std::string> emitted;
    std::vector<std::vector<char>> replies;
    std::vector<GError*> left_behind;
};

State& Bus()
{
    static State state;
    return state;
}

gpointer NewObject()
{
    auto* object = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
    ++Bus().live_objects;
    g_object_weak_ref(
        object, [](gpointer, GObject*) { --Bus().live_objects; }, nullptr);
    return object;
}

GVariant* Code(unsigned code)
{
    return g_variant_ref_sink(g_variant_new("(u)", code));
}

GVariant* Request(GVariant* parameters, GError** error)
{
    const gchar* name = nullptr;
    g_variant_get(parameters, "(&su)", &name, nullptr);
    Bus().requested.push_back(name);
    if (Bus().request_code != 0)
        return Code(Bus().request_code);
    g_set_error_literal(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED, "denied");
    return nullptr;
}

// The channel leaves this error unread and does not free it.
GVariant* Release(GError** error)
{
    if (Bus().release_succeeds)
        return Code(1);
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_CLOSED, "closed");
    Bus().left_behind.push_back(*error);
    return nullptr;
}

std::string Find(const std::map<guint, std::string>& map, guint id)
{
    const auto found = map.find(id);
    return found != map.end() ? found->second : "";
}

}  // namespace

namespace bus_double {

const char* const OWN_NAME = ":1.1";

void AnswerRequest(unsigned code, bool release_succeeds)
{
    Bus().request_code = code;
    Bus().release_succeeds = release_succeeds;
}

void FailProxies(bool fail)
{
    Bus().fail_proxies = fail;
}

std::vector<std::string> TakeRequested()
{
    return std::exchange(Bus().requested, {});
}

std::vector<std::string> TakeEmitted()
{
    return std::exchange(Bus().emitted, {});
}

std::vector<std::vector<char>> TakeReplies()
{
    return std::exchange(Bus().replies, {});
}

std::string WatchedBy(guint watch)
{
    return Find(Bus().watches, watch);
}

std::string SubscribedTo(guint subscription)
{
    return Find(Bus().subscriptions, subscription);
}

std::size_t Watches()
{
    return Bus().watches.size();
}

std::size_t PartnerSubscriptions()
{
    return Bus().subscriptions.size();
}

int LiveObjects()
{
    return Bus().live_objects;
}

void Reset()
{
    for (GError* error : Bus().left_behind)
        g_error_free(error);
    const guint last_id = Bus().last_id;
    Bus() = State();
    Bus().last_id = last_id;
}

}  // namespace bus_double

extern "C" {

int platform_log_print(int /*buffer*/, int /*priority*/, const char* /*tag*/,
                       const char* /*format*/, ...)
{
    return 0;
}

GDBusConnection* g_bus_get_sync(GBusType /*type*/, GCancellable* /*cancellable*/,
                                GError** /*error*/)
{
    return static_cast<GDBusConnection*>(NewObject());
}

const gchar* g_dbus_connection_get_unique_name(GDBusConnection* /*connection*/)
{
    return bus_double::OWN_NAME;
}

guint g_dbus_connection_register_object(GDBusConnection* /*connection*/, const gchar* /*path*/,
                                        GDBusInterfaceInfo* /*info*/,
                                        const GDBusInterfaceVTable* /*vtable*/,
                                        gpointer /*user_data*/, GDestroyNotify /*free_function*/,
                                        GError** /*error*/)
{
    return ++Bus().last_id;
}

guint g_dbus_connection_signal_subscribe(GDBusConnection* /*connection*/, const gchar* sender,
                                         const gchar* /*interface*/, const gchar* /*member*/,
                                         const gchar* /*path*/, const gchar* arg0,
                                         GDBusSignalFlags /*flags*/, GDBusSignalCallback /*call*/,
                                         gpointer /*user_data*/, GDestroyNotify /*free_function*/)
{
    const guint id = ++Bus().last_id;
    if (arg0 != nullptr)
        Bus().stage_subscriptions.push_back(id);
    else
        Bus().subscriptions[id] = sender;
    return id;
}

void g_dbus_connection_signal_unsubscribe(GDBusConnection* /*connection*/, guint id)
{
    FUZZ_ASSERT(Bus().subscriptions.erase(id) == 1);
}

guint g_bus_watch_name_on_connection(GDBusConnection* /*connection*/, const gchar* name,
                                     GBusNameWatcherFlags /*flags*/,
                                     GBusNameAppearedCallback /*appeared*/,
                                     GBusNameVanishedCallback /*vanished*/, gpointer /*user_data*/,
                                     GDestroyNotify /*free_function*/)
{
    const guint id = ++Bus().last_id;
    Bus().watches[id] = name;
    return id;
}

// The channel's destructor hands the stage subscriptions' ids here, on purpose.
void g_bus_unwatch_name(guint id)
{
    if (Bus().watches.erase(id) == 1)
        return;
    const std::vector<guint>& stages = Bus().stage_subscriptions;
    FUZZ_ASSERT(std::find(stages.begin(), stages.end(), id) != stages.end());
}

GDBusProxy* g_dbus_proxy_new_sync(GDBusConnection* /*connection*/, GDBusProxyFlags /*flags*/,
                                  GDBusInterfaceInfo* /*info*/, const gchar* /*name*/,
                                  const gchar* /*path*/, const gchar* /*interface*/,
                                  GCancellable* /*cancellable*/, GError** error)
{
    if (!Bus().fail_proxies)
        return static_cast<GDBusProxy*>(NewObject());
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "no proxy");
    return nullptr;
}

GVariant* g_dbus_connection_call_sync(GDBusConnection* /*connection*/, const gchar* /*name*/,
                                      const gchar* /*path*/, const gchar* /*interface*/,
                                      const gchar* method, GVariant* parameters,
                                      const GVariantType* /*reply_type*/, GDBusCallFlags /*flags*/,
                                      gint /*timeout*/, GCancellable* /*cancellable*/,
                                      GError** error)
{
    g_variant_ref_sink(parameters);
    GVariant* reply =
        std::string(method) == "RequestName" ? Request(parameters, error) : Release(error);
    g_variant_unref(parameters);
    return reply;
}

gboolean g_dbus_connection_emit_signal(GDBusConnection* /*connection*/, const gchar* destination,
                                       const gchar* /*path*/, const gchar* /*interface*/,
                                       const gchar* /*signal*/, GVariant* parameters,
                                       GError** /*error*/)
{
    g_variant_unref(g_variant_ref_sink(parameters));
    Bus().emitted.push_back(destination);
    return TRUE;
}

void g_dbus_method_invocation_return_value(GDBusMethodInvocation* /*invocation*/,
                                           GVariant* parameters)
{
    g_variant_ref_sink(parameters);
    Bus().replies.push_back(pelmar_bytes::From(parameters));
    g_variant_unref(parameters);
}

}  // extern "C"
