#include "recorder.h"

#include <pthread.h>

#include <cstdarg>
#include <cstring>
#include <initializer_list>

#include "names.h"
#include "pelmar-dbus-local.h"
#include "platform-log.h"

namespace {

using Argument = std::pair<const char*, std::string>;

std::size_t AddCall(const std::string& function, std::initializer_list<Argument> arguments)
{
    std::string text;
    for (const auto& [name, value] : arguments)
        text += (text.empty() ? "" : ", ") + std::string(name) + (*name != 0 ? "=" : "") + value;
    return Recorder::Get().Add(function + "(" + text + ")");
}

std::string Text(const char* text)
{
    return Recorder::Get().Show(text);
}

std::string Object(const void* object)
{
    return Recorder::Get().ShowObject(object);
}

std::string Callback(const void* function)
{
    static const std::map<const void*, std::string> names = {
        {nullptr, "null"},
        {reinterpret_cast<const void*>(&PelmarDbusLocal::cb_SynNameOwnerChanged),
         "cb_SynNameOwnerChanged"},
        {reinterpret_cast<const void*>(&PelmarDbusLocal::cb_SynAckNameOwnerChanged),
         "cb_SynAckNameOwnerChanged"},
        {reinterpret_cast<const void*>(&PelmarDbusLocal::cb_AckNameOwnerChanged),
         "cb_AckNameOwnerChanged"},
        {reinterpret_cast<const void*>(&PelmarDbusLocal::cb_PartnerNameVanished),
         "cb_PartnerNameVanished"},
        {reinterpret_cast<const void*>(&PelmarDbusLocal::cb_SignalCall), "cb_SignalCall"},
    };
    const auto found = names.find(function);
    return found != names.end() ? found->second : "a stranger";
}

template <typename Function>
std::string Callback(Function* function)
{
    return Callback(reinterpret_cast<const void*>(function));
}

std::string ErrorArgument(GError* const* error)
{
    if (error == nullptr)
        return "null";
    return *error == nullptr ? "&null" : "&an old error";
}

// The call that takes a value consumes it, which goes only with a floating one.
std::string Parameters(GVariant* body)
{
    const bool floating = body == nullptr || g_variant_is_floating(body) != FALSE;
    return (floating ? "" : "sunk ") + Recorder::Get().ShowBody(body);
}

std::string ReplyType(const GVariantType* type)
{
    if (type == nullptr)
        return "null";
    return std::string(g_variant_type_peek_string(type), g_variant_type_get_string_length(type));
}

std::string Escaped(const std::string& text)
{
    gchar* escaped = g_strescape(text.c_str(), nullptr);
    std::string result = escaped;
    g_free(escaped);
    return result;
}

std::string ShowChild(GVariant* child)
{
    if (g_variant_is_of_type(child, G_VARIANT_TYPE_STRING) != FALSE)
        return Text(g_variant_get_string(child, nullptr));
    gchar* printed = g_variant_print(child, FALSE);
    std::string text = printed;
    g_free(printed);
    if (g_variant_is_of_type(child, G_VARIANT_TYPE_BYTESTRING) == FALSE)
        return text;
    text.clear();
    gsize size = 0;
    const auto* bytes = static_cast<const guchar*>(g_variant_get_fixed_array(child, &size, 1));
    for (gsize i = 0; i < size; ++i) {
        char digits[4];
        std::snprintf(digits, sizeof(digits), "%s%02x", i == 0 ? "" : " ", bytes[i]);
        text += digits;
    }
    return "[" + text + "]";
}

}  // namespace

Recorder& Recorder::Get()
{
    static Recorder recorder;
    return recorder;
}

std::string Recorder::Take()
{
    std::string trace = "\n";
    for (const std::string& line : m_lines)
        trace += line + "\n";
    m_lines.clear();
    return trace;
}

std::size_t Recorder::Add(const std::string& line)
{
    m_lines.push_back(line);
    const std::size_t index = m_lines.size() - 1;
    for (const auto& [text, look] : m_looks) {
        if (line.compare(0, text.size(), text) == 0)
            look();
    }
    return index;
}

void Recorder::At(const std::string& text, std::function<void()> look)
{
    m_looks.emplace_back(text, std::move(look));
}

void Recorder::SetResult(std::size_t line, const std::string& result)
{
    m_lines.at(line) += " = " + result;
}

void Recorder::Fail(const std::string& call, int code, const std::string& message)
{
    m_faults[call] = Fault{false, code, message};
}

void Recorder::FailSilently(const std::string& call)
{
    m_faults[call] = Fault{true, 0, ""};
}

void Recorder::Answer(const std::string& method, guint32 code)
{
    m_answers[method] = code;
}

std::string Recorder::Show(const char* text) const
{
    if (text == nullptr)
        return "null";
    const auto alias = m_strings.find(text);
    if (alias != m_strings.end())
        return alias->second;
    std::string shown = text;
    for (const auto& [side, name] : {std::pair(names::OWN_SIDE, std::string("_OWN")),
                                     std::pair(names::PEER_SIDE, std::string("_PEER"))}) {
        const std::size_t place = shown.find(side);
        if (place != std::string::npos)
            shown.replace(place, side.size(), name);
    }
    return shown.empty() ? "\"\"" : Escaped(shown);
}

std::string Recorder::ShowObject(const void* object) const
{
    if (object == nullptr)
        return "null";
    const auto alias = m_objects.find(object);
    return alias != m_objects.end() ? alias->second : "a stranger";
}

std::string Recorder::ShowId(guint id) const
{
    const auto name = m_ids.find(id);
    return name != m_ids.end() ? name->second : std::to_string(id);
}

std::string Recorder::ShowBody(GVariant* body) const
{
    if (body == nullptr)
        return "null";
    std::string text;
    for (gsize i = 0; i < g_variant_n_children(body); ++i) {
        GVariant* child = g_variant_get_child_value(body, i);
        text += (i == 0 ? "" : ", ") + ShowChild(child);
        g_variant_unref(child);
    }
    return std::string(g_variant_get_type_string(body)) + "(" + text + ")";
}

bool Recorder::TakeFault(const std::string& call, GError** error)
{
    const auto found = m_faults.find(call);
    if (found == m_faults.end())
        return false;
    const auto& [silent, code, message] = found->second;
    if (!silent && error != nullptr) {
        *error = g_error_new_literal(G_IO_ERROR, code, message.c_str());
        Alias(message, message);
    }
    m_faults.erase(found);
    return true;
}

// The value frees its bytes when its last reference goes, and so tells whether it was released.
GVariant* Recorder::TakeAnswer(const std::string& method)
{
    const auto found = m_answers.find(method);
    if (found == m_answers.end())
        return nullptr;
    auto* code = g_new(guint32, 1);
    *code = found->second;
    m_answers.erase(found);
    ++m_answers_alive;
    const auto release = [](gpointer bytes) {
        g_free(bytes);
        --Recorder::Get().m_answers_alive;
    };
    return g_variant_take_ref(
        g_variant_new_from_data(G_VARIANT_TYPE("(u)"), code, sizeof(*code), TRUE, release, code));
}

std::string Recorder::NameObject(const void* object, const std::string& kind)
{
    if (object == nullptr)
        return "null";
    return m_objects[object] = Numbered(kind);
}

std::string Recorder::NameId(guint id, const std::string& kind)
{
    if (id == 0)
        return "0";
    return m_ids[id] = Numbered(kind);
}

std::string Recorder::NameChannel(const void* channel)
{
    if (channel != nullptr && m_objects.count(channel) == 0) {
        const std::string numbered = Numbered("channel");
        m_objects[channel] = numbered == "channel#1" ? "channel" : numbered;
    }
    return ShowObject(channel);
}

void Recorder::NameError(GError* const* error)
{
    // What a test made up is shown as it is.
    if (error != nullptr && *error != nullptr)
        m_strings.emplace((*error)->message, "<the message>");
}

std::string Recorder::Numbered(const std::string& kind)
{
    return kind + "#" + std::to_string(++m_counters[kind]);
}

// ---- The platform log ----------------------------------------------------------------------

namespace {

// The arguments that the rest of a format asks for. The channel uses %s and %d only.
std::string ShowArguments(const char* format, va_list arguments)
{
    std::string text;
    for (const char* place = std::strchr(format, '%'); place != nullptr;
         place = std::strchr(place + 1, '%')) {
        text += text.empty() ? " " : ", ";
        if (place[1] == 's')
            text += Text(va_arg(arguments, const char*));
        else
            text += std::to_string(va_arg(arguments, int));
    }
    return text;
}

}  // namespace

// Whatever is not as it has to be goes into the line, and so makes the comparison fail.
extern "C" int platform_log_print(int buffer, int priority, const char* tag, const char* format,
                                  ...)
{
    static const std::string prefix = "%s: %s(%d) > [%s:%d] ";
    if (std::string(format).compare(0, prefix.size(), prefix) != 0) {
        Recorder::Get().Add("log without the prefix: " + Escaped(format));
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const std::string file = va_arg(arguments, const char*);
    const std::string function = va_arg(arguments, const char*);
    const int line = va_arg(arguments, int);
    const std::string function_again = va_arg(arguments, const char*);
    const int line_again = va_arg(arguments, int);
    std::string text = "log " + std::to_string(priority) + " " + function + " \"" +
                       Escaped(format + prefix.size()) + "\"" +
                       ShowArguments(format + prefix.size(), arguments);
    va_end(arguments);
    if (buffer != 0)
        text += " (to buffer " + std::to_string(buffer) + ")";
    if (tag != std::string("kestrin"))
        text += " (tagged " + std::string(tag) + ")";
    if (file != "pelmar-dbus-local.cpp")
        text += " (from " + file + ")";
    if (function != function_again)
        text += " (and then " + function_again + ")";
    if (line != line_again || line <= 0)
        text += " (lines " + std::to_string(line) + " and " + std::to_string(line_again) + ")";
    Recorder::Get().Add(text);
    return static_cast<int>(text.size());
}

// ---- GIO and the mutex ---------------------------------------------------------------------

// Ids of watches and of subscriptions are small numbers that run into each other. The channel gets
// others, so that a trace can tell whose id is given back; numbers unknown here go to GIO as they
// are.
namespace {

constexpr guint FIRST_WATCH = 10000;
constexpr guint FIRST_SUBSCRIPTION = 20000;

guint RealId(guint id, guint first)
{
    return id > first && id < first + FIRST_WATCH ? id - first : id;
}

Recorder& Rec()
{
    return Recorder::Get();
}

}  // namespace

extern "C" {

void __wrap_g_type_init()
{
    AddCall("g_type_init", {});
}

GDBusNodeInfo* __wrap_g_dbus_node_info_new_for_xml(const gchar* xml, GError** error)
{
    const bool known = xml == PelmarDbusLocal::INTERFACE_XML;
    const std::size_t line =
        AddCall("g_dbus_node_info_new_for_xml",
                {{"xml", known ? "INTERFACE_XML" : xml}, {"error", ErrorArgument(error)}});
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml, error);
    Rec().SetResult(line, Rec().NameObject(node, "node"));
    Rec().Alias(node->interfaces[0], Object(node) + ".interfaces[0]");
    return node;
}

void __wrap_g_dbus_node_info_unref(GDBusNodeInfo* node)
{
    AddCall("g_dbus_node_info_unref", {{"", Object(node)}});
    g_dbus_node_info_unref(node);
}

GDBusConnection* __wrap_g_bus_get_sync(GBusType type, GCancellable* cancellable, GError** error)
{
    const std::size_t line = AddCall("g_bus_get_sync", {{"type", std::to_string(type)},
                                                        {"cancellable", Object(cancellable)},
                                                        {"error", ErrorArgument(error)}});
    GDBusConnection* connection = nullptr;
    if (!Rec().TakeFault("g_bus_get_sync", error))
        connection = g_bus_get_sync(type, cancellable, error);
    Rec().NameError(error);
    if (connection != nullptr)
        Rec().Alias(connection, "own");
    Rec().SetResult(line, Object(connection));
    return connection;
}

const gchar* __wrap_g_dbus_connection_get_unique_name(GDBusConnection* connection)
{
    const std::size_t line =
        AddCall("g_dbus_connection_get_unique_name", {{"connection", Object(connection)}});
    const gchar* name = nullptr;
    if (!Rec().TakeFault("g_dbus_connection_get_unique_name", nullptr))
        name = g_dbus_connection_get_unique_name(connection);
    if (name != nullptr)
        Rec().Alias(std::string(name), "self");
    Rec().SetResult(line, Text(name));
    return name;
}

guint __wrap_g_dbus_connection_register_object(GDBusConnection* connection, const gchar* path,
                                               GDBusInterfaceInfo* interface,
                                               const GDBusInterfaceVTable* vtable, gpointer data,
                                               GDestroyNotify free_data, GError** error)
{
    const std::size_t line =
        AddCall("g_dbus_connection_register_object",
                {{"connection", Object(connection)},
                 {"path", Text(path)},
                 {"interface", Object(interface)},
                 {"vtable", vtable == &PelmarDbusLocal::m_vtable ? "m_vtable" : "a stranger"},
                 {"data", Rec().NameChannel(data)},
                 {"free", Callback(free_data)},
                 {"error", ErrorArgument(error)}});
    guint id = 0;
    if (!Rec().TakeFault("g_dbus_connection_register_object", error))
        id = g_dbus_connection_register_object(connection, path, interface, vtable, data, free_data,
                                               error);
    Rec().NameError(error);
    Rec().SetResult(line, id == 0 ? "0" : "registration");
    return id;
}

guint __wrap_g_dbus_connection_signal_subscribe(GDBusConnection* connection, const gchar* sender,
                                                const gchar* interface, const gchar* member,
                                                const gchar* path, const gchar* arg0,
                                                GDBusSignalFlags flags,
                                                GDBusSignalCallback callback, gpointer data,
                                                GDestroyNotify free_data)
{
    const std::size_t line =
        AddCall("g_dbus_connection_signal_subscribe", {{"connection", Object(connection)},
                                                       {"sender", Text(sender)},
                                                       {"interface", Text(interface)},
                                                       {"member", Text(member)},
                                                       {"path", Text(path)},
                                                       {"arg0", Text(arg0)},
                                                       {"flags", std::to_string(flags)},
                                                       {"callback", Callback(callback)},
                                                       {"data", Rec().NameChannel(data)},
                                                       {"free", Callback(free_data)}});
    guint id = 0;
    if (!Rec().TakeFault("g_dbus_connection_signal_subscribe", nullptr))
        id = FIRST_SUBSCRIPTION + g_dbus_connection_signal_subscribe(connection, sender, interface,
                                                                     member, path, arg0, flags,
                                                                     callback, data, free_data);
    Rec().SetResult(line, Rec().NameId(id, "subscription"));
    return id;
}

void __wrap_g_dbus_connection_signal_unsubscribe(GDBusConnection* connection, guint id)
{
    AddCall("g_dbus_connection_signal_unsubscribe",
            {{"connection", Object(connection)}, {"id", Rec().ShowId(id)}});
    g_dbus_connection_signal_unsubscribe(connection, RealId(id, FIRST_SUBSCRIPTION));
}

guint __wrap_g_bus_watch_name_on_connection(GDBusConnection* connection, const gchar* name,
                                            GBusNameWatcherFlags flags,
                                            GBusNameAppearedCallback appeared,
                                            GBusNameVanishedCallback vanished, gpointer data,
                                            GDestroyNotify free_data)
{
    const std::size_t line =
        AddCall("g_bus_watch_name_on_connection", {{"connection", Object(connection)},
                                                   {"name", Text(name)},
                                                   {"flags", std::to_string(flags)},
                                                   {"appeared", Callback(appeared)},
                                                   {"vanished", Callback(vanished)},
                                                   {"data", Rec().NameChannel(data)},
                                                   {"free", Callback(free_data)}});
    guint id = 0;
    if (!Rec().TakeFault("g_bus_watch_name_on_connection", nullptr))
        id = FIRST_WATCH + g_bus_watch_name_on_connection(connection, name, flags, appeared,
                                                          vanished, data, free_data);
    Rec().SetResult(line, Rec().NameId(id, "watch"));
    return id;
}

void __wrap_g_bus_unwatch_name(guint id)
{
    AddCall("g_bus_unwatch_name", {{"id", Rec().ShowId(id)}});
    if (id != RealId(id, FIRST_WATCH))
        g_bus_unwatch_name(RealId(id, FIRST_WATCH));
}

void __wrap_g_bus_unown_name(guint id)
{
    AddCall("g_bus_unown_name", {{"id", Rec().ShowId(id)}});
}

GVariant* __wrap_g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* name,
                                             const gchar* path, const gchar* interface,
                                             const gchar* method, GVariant* parameters,
                                             const GVariantType* reply_type, GDBusCallFlags flags,
                                             gint timeout, GCancellable* cancellable,
                                             GError** error)
{
    const std::size_t line =
        AddCall("g_dbus_connection_call_sync", {{"connection", Object(connection)},
                                                {"name", Text(name)},
                                                {"path", Text(path)},
                                                {"interface", Text(interface)},
                                                {"method", Text(method)},
                                                {"parameters", Parameters(parameters)},
                                                {"reply", ReplyType(reply_type)},
                                                {"flags", std::to_string(flags)},
                                                {"timeout", std::to_string(timeout)},
                                                {"cancellable", Object(cancellable)},
                                                {"error", ErrorArgument(error)}});
    GVariant* reply = nullptr;
    if (!Rec().TakeFault(method, error)) {
        reply = Rec().TakeAnswer(method);
        if (reply == nullptr)
            reply =
                g_dbus_connection_call_sync(connection, name, path, interface, method, parameters,
                                            reply_type, flags, timeout, cancellable, error);
    }
    Rec().NameError(error);
    Rec().SetResult(line, Rec().ShowBody(reply));
    return reply;
}

GDBusProxy* __wrap_g_dbus_proxy_new_sync(GDBusConnection* connection, GDBusProxyFlags flags,
                                         GDBusInterfaceInfo* info, const gchar* name,
                                         const gchar* path, const gchar* interface,
                                         GCancellable* cancellable, GError** error)
{
    const std::size_t line = AddCall("g_dbus_proxy_new_sync", {{"connection", Object(connection)},
                                                               {"flags", std::to_string(flags)},
                                                               {"info", Object(info)},
                                                               {"name", Text(name)},
                                                               {"path", Text(path)},
                                                               {"interface", Text(interface)},
                                                               {"cancellable", Object(cancellable)},
                                                               {"error", ErrorArgument(error)}});
    GDBusProxy* proxy = nullptr;
    if (!Rec().TakeFault("g_dbus_proxy_new_sync", error))
        proxy = g_dbus_proxy_new_sync(connection, flags, info, name, path, interface, cancellable,
                                      error);
    Rec().NameError(error);
    Rec().SetResult(line, Rec().NameObject(proxy, "proxy"));
    return proxy;
}

gboolean __wrap_g_dbus_connection_emit_signal(GDBusConnection* connection, const gchar* destination,
                                              const gchar* path, const gchar* interface,
                                              const gchar* signal, GVariant* parameters,
                                              GError** error)
{
    const std::size_t line =
        AddCall("g_dbus_connection_emit_signal", {{"connection", Object(connection)},
                                                  {"destination", Text(destination)},
                                                  {"path", Text(path)},
                                                  {"interface", Text(interface)},
                                                  {"signal", Text(signal)},
                                                  {"parameters", Parameters(parameters)},
                                                  {"error", ErrorArgument(error)}});
    gboolean sent = FALSE;
    if (!Rec().TakeFault("g_dbus_connection_emit_signal", error))
        sent = g_dbus_connection_emit_signal(connection, destination, path, interface, signal,
                                             parameters, error);
    Rec().NameError(error);
    Rec().SetResult(line, sent != FALSE ? "true" : "false");
    return sent;
}

void __wrap_g_dbus_method_invocation_return_value(GDBusMethodInvocation* invocation,
                                                  GVariant* parameters)
{
    AddCall("g_dbus_method_invocation_return_value", {{"parameters", Parameters(parameters)}});
    g_dbus_method_invocation_return_value(invocation, parameters);
}

void __wrap_g_object_unref(gpointer object)
{
    AddCall("g_object_unref", {{"", Object(object)}});
    g_object_unref(object);
}

void __wrap_g_error_free(GError* error)
{
    AddCall("g_error_free", {{"", Text(error->message)}});
    g_error_free(error);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    Rec().Add("lock");
    return pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    Rec().Add("unlock");
    return pthread_mutex_unlock(mutex);
}

}  // extern "C"
