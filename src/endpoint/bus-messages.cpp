#include "bus-messages.h"

#include <gio/gunixfdlist.h>

#include <algorithm>
#include <cstring>

#include "byte-variant.h"
#include "channel-names.h"
#include "partner-window.h"

namespace bus_message {

namespace {

constexpr const char* DAEMON = "org.freedesktop.DBus";
constexpr const char* DAEMON_PATH = "/org/freedesktop/DBus";

constexpr std::size_t LONGEST_TEXT = 4096;

MessagePtr NewCall(const char* destination, const char* path, const char* interface,
                   const char* method, GVariant* parameters)
{
    MessagePtr message(g_dbus_message_new_method_call(destination, path, interface, method));
    g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    if (parameters != nullptr)
        g_dbus_message_set_body(message.get(), parameters);
    return message;
}

MessagePtr NewAnswer(const CallId& call, GDBusMessageType type)
{
    MessagePtr answer(g_dbus_message_new());
    g_dbus_message_set_message_type(answer.get(), type);
    g_dbus_message_set_flags(answer.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    g_dbus_message_set_reply_serial(answer.get(), call.serial);
    g_dbus_message_set_destination(answer.get(), call.caller.c_str());
    return answer;
}

// The longest start that ends before a character does not fit.
std::string CutAtCharacter(const std::string& text)
{
    if (text.size() <= LONGEST_TEXT)
        return text;
    const auto is_inside = [&text](std::size_t at) {
        return (static_cast<unsigned char>(text[at]) & 0xc0U) == 0x80U;
    };
    std::size_t end = LONGEST_TEXT;
    while (end > LONGEST_TEXT - 3 && is_inside(end))
        --end;
    return text.substr(0, end);
}

std::vector<ForeignDescriptor> StealDescriptors(GDBusMessage* message)
{
    std::vector<ForeignDescriptor> stolen;
    GUnixFDList* list = g_dbus_message_get_unix_fd_list(message);
    if (list == nullptr)
        return stolen;
    gint count = 0;
    gint* descriptors = g_unix_fd_list_steal_fds(list, &count);
    for (gint i = 0; i < count; ++i)
        stolen.emplace_back(descriptors[i]);
    g_free(descriptors);
    return stolen;
}

}  // namespace

MessagePtr ToDaemon(const char* method, GVariant* parameters)
{
    return NewCall(DAEMON, DAEMON_PATH, DAEMON, method, parameters);
}

MessagePtr Call(const std::string& partner, const std::string& path, const char* interface,
                const char* method, GVariant* parameters)
{
    return NewCall(partner.c_str(), path.c_str(), interface, method, parameters);
}

MessagePtr Signal(const std::string& partner, const std::string& path, GVariant* parameters)
{
    MessagePtr message(g_dbus_message_new_signal(path.c_str(), CHANNEL_INTERFACE, CHANNEL_SIGNAL));
    g_dbus_message_set_destination(message.get(), partner.c_str());
    g_dbus_message_set_body(message.get(), parameters);
    return message;
}

MessagePtr DirectPathWord(const std::string& partner, const std::string& path, const char* method)
{
    MessagePtr message = Call(partner, path, DIRECT_PATH_INTERFACE, method, nullptr);
    g_dbus_message_set_flags(message.get(),
                             static_cast<GDBusMessageFlags>(G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED |
                                                            G_DBUS_MESSAGE_FLAGS_NO_AUTO_START));
    return message;
}

MessagePtr OpenDirectPath(const std::string& partner, const std::string& path, guint32 version,
                          int socket)
{
    const GObjectPtr<GUnixFDList> list(g_unix_fd_list_new());
    const gint handle = g_unix_fd_list_append(list.get(), socket, nullptr);
    if (handle < 0)
        return nullptr;
    MessagePtr call = NewCall(partner.c_str(), path.c_str(), DIRECT_PATH_INTERFACE, "Open",
                              g_variant_new("(uh)", version, handle));
    g_dbus_message_set_unix_fd_list(call.get(), list.get());
    return call;
}

ForeignDescriptor TakeDescriptor(GDBusMessage* call)
{
    std::vector<ForeignDescriptor> came = StealDescriptors(call);
    if (!HasBody(call, "(uh)"))
        return ForeignDescriptor();
    guint32 version = 0;
    gint handle = -1;
    g_variant_get(g_dbus_message_get_body(call), "(uh)", &version, &handle);
    if (version == 0 || handle < 0 || static_cast<std::size_t>(handle) >= came.size())
        return ForeignDescriptor();
    return std::move(came[static_cast<std::size_t>(handle)]);
}

CallId::CallId(GDBusMessage* call)
    : caller(g_dbus_message_get_sender(call)),
      serial(g_dbus_message_get_serial(call)),
      expects_answer((g_dbus_message_get_flags(call) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0)
{
}

MessagePtr Answer(const CallId& call, GVariant* parameters)
{
    MessagePtr answer = NewAnswer(call, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_body(answer.get(), parameters);
    return answer;
}

MessagePtr Error(const CallId& call, const char* name, const std::string& text)
{
    MessagePtr error = NewAnswer(call, G_DBUS_MESSAGE_TYPE_ERROR);
    g_dbus_message_set_error_name(error.get(), name);
    g_dbus_message_set_body(error.get(), g_variant_new("(s)", BoundedText(text).c_str()));
    return error;
}

// An error's text has to be UTF-8, and grows threefold where it is none.
std::string BoundedText(const std::string& text)
{
    const std::string start = CutAtCharacter(text);
    const std::unique_ptr<char, decltype(&g_free)> valid(
        g_utf8_make_valid(start.data(), static_cast<gssize>(start.size())), g_free);
    return CutAtCharacter(valid.get());
}

void DropDescriptors(GDBusMessage* message)
{
    StealDescriptors(message);
}

bool IsFromDaemon(GDBusMessage* message)
{
    return g_strcmp0(g_dbus_message_get_sender(message), DAEMON) == 0;
}

bool IsCall(GDBusMessage* message)
{
    return g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL;
}

bool HasMember(GDBusMessage* message, const char* interface, const char* member)
{
    return g_strcmp0(g_dbus_message_get_interface(message), interface) == 0 &&
           g_strcmp0(g_dbus_message_get_member(message), member) == 0;
}

bool HasBody(GDBusMessage* message, const char* type)
{
    GVariant* body = g_dbus_message_get_body(message);
    return body != nullptr ? std::strcmp(g_variant_get_type_string(body), type) == 0
                           : std::strcmp(type, "()") == 0;
}

std::size_t BodySize(GDBusMessage* message)
{
    GVariant* body = g_dbus_message_get_body(message);
    return body != nullptr ? g_variant_get_size(body) : 0;
}

std::size_t Cost(GDBusMessage* message)
{
    return BodySize(message) + MESSAGE_OVERHEAD;
}

std::vector<char> Bytes(GDBusMessage* message)
{
    return pelmar_bytes::From(g_dbus_message_get_body(message));
}

std::string ErrorName(GDBusMessage* message)
{
    const gchar* name = g_dbus_message_get_error_name(message);
    return name != nullptr ? name : "";
}

std::string ErrorText(GDBusMessage* message)
{
    return BoundedText(FirstString(message));
}

std::optional<guint32> Number(GDBusMessage* message)
{
    if (g_dbus_message_get_error_name(message) != nullptr || !HasBody(message, "(u)"))
        return std::nullopt;
    guint32 number = 0;
    g_variant_get(g_dbus_message_get_body(message), "(u)", &number);
    return number;
}

std::string FirstString(GDBusMessage* message)
{
    const gchar* text = g_dbus_message_get_arg0(message);
    return text != nullptr ? text : "";
}

std::optional<OwnerChange> ReadOwnerChange(GDBusMessage* signal)
{
    if (!HasBody(signal, "(sss)"))
        return std::nullopt;
    const gchar* name = nullptr;
    const gchar* old_owner = nullptr;
    const gchar* new_owner = nullptr;
    g_variant_get(g_dbus_message_get_body(signal), "(&s&s&s)", &name, &old_owner, &new_owner);
    return OwnerChange{name, old_owner, new_owner};
}

Credentials ReadCredentials(GDBusMessage* reply)
{
    Credentials credentials;
    if (!HasBody(reply, "(a{sv})"))
        return credentials;
    const VariantPtr all(g_variant_get_child_value(g_dbus_message_get_body(reply), 0));
    guint32 number = 0;
    if (g_variant_lookup(all.get(), "UnixUserID", "u", &number) != FALSE)
        credentials.uid = number;
    if (g_variant_lookup(all.get(), "ProcessID", "u", &number) != FALSE)
        credentials.pid = static_cast<pid_t>(number);
    return credentials;
}

namespace {

bool SaysThat(GDBusMessage* answer, const char* key)
{
    if (!HasBody(answer, "(a{sv})"))
        return false;
    const VariantPtr all(g_variant_get_child_value(g_dbus_message_get_body(answer), 0));
    gboolean is_so = FALSE;
    g_variant_lookup(all.get(), key, "b", &is_so);
    return is_so != FALSE;
}

}  // namespace

GVariant* UnknownPartner()
{
    return g_variant_new_parsed("({'Unknown': <true>},)");
}

bool IsUnknownPartner(GDBusMessage* answer)
{
    return SaysThat(answer, "Unknown");
}

GVariant* WaitForInvitation()
{
    return g_variant_new_parsed("({'Wait': <true>},)");
}

bool HasToWait(GDBusMessage* answer)
{
    return SaysThat(answer, "Wait");
}

std::string OwnerChangeRule(const std::string& name)
{
    return "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
           "member='NameOwnerChanged',path='/org/freedesktop/DBus',arg0='" +
           name + "'";
}

}  // namespace bus_message
