// The D-Bus messages that an endpoint sends and takes apart. Internal.
#ifndef PELMAR_BUS_MESSAGES_H
#define PELMAR_BUS_MESSAGES_H

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "foreign-descriptor.h"
#include "gio-handles.h"

using MessagePtr = GObjectPtr<GDBusMessage>;

inline MessagePtr NewReference(GDBusMessage* message)
{
    return MessagePtr(G_DBUS_MESSAGE(g_object_ref(message)));
}

namespace bus_error {
constexpr const char* FAILED = "org.vaska.pelmar.Error.Failed";
constexpr const char* GONE = "org.vaska.pelmar.Error.Gone";
constexpr const char* LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* NAME_HAS_NO_OWNER = "org.freedesktop.DBus.Error.NameHasNoOwner";
constexpr const char* SERVICE_UNKNOWN = "org.freedesktop.DBus.Error.ServiceUnknown";
constexpr const char* NO_REPLY = "org.freedesktop.DBus.Error.NoReply";
}  // namespace bus_error

namespace bus_message {

// A call of the bus daemon itself; consumes floating parameters.
MessagePtr ToDaemon(const char* method, GVariant* parameters);

// A call of a partner's object; nothing is started for it.
MessagePtr Call(const std::string& partner, const std::string& path, const char* interface,
                const char* method, GVariant* parameters);

// A partner's notification.
MessagePtr Signal(const std::string& partner, const std::string& path, GVariant* parameters);

// The question for a direct path, with a socket that stays the caller's. Null when the process has
// too few descriptors.
MessagePtr OpenDirectPath(const std::string& partner, const std::string& path, guint32 version,
                          int socket);
// What is said about direct paths without being answered.
MessagePtr DirectPathWord(const std::string& partner, const std::string& path, const char* method);
// The descriptor that came with such a call. Not open when there is none, or no version.
ForeignDescriptor TakeDescriptor(GDBusMessage* call);

// What it takes to answer a call, without what was sent with it.
struct CallId {
    explicit CallId(GDBusMessage* call);

    std::string caller;
    guint32 serial;
    bool expects_answer;
};
MessagePtr Answer(const CallId& call, GVariant* parameters);
MessagePtr Error(const CallId& call, const char* name, const std::string& text);

// The first 4 KiB of a text, as valid UTF-8.
std::string BoundedText(const std::string& text);

// Closes the descriptors that came with the message.
void DropDescriptors(GDBusMessage* message);

bool IsFromDaemon(GDBusMessage* message);
bool IsCall(GDBusMessage* message);
bool HasMember(GDBusMessage* message, const char* interface, const char* member);

// Whether the body has that type, like "(ay)"; "()" for none.
bool HasBody(GDBusMessage* message, const char* type);
std::size_t BodySize(GDBusMessage* message);

// What the message costs while it waits.
std::size_t Cost(GDBusMessage* message);

// The bytes of a body "(ay)".
std::vector<char> Bytes(GDBusMessage* message);

// An error's name, empty when the message is none; and its text, bounded.
std::string ErrorName(GDBusMessage* message);
std::string ErrorText(GDBusMessage* message);

// The number in a body "(u)"; nothing for any other.
std::optional<guint32> Number(GDBusMessage* message);

// The first string of the body; empty when there is none.
std::string FirstString(GDBusMessage* message);

struct OwnerChange {
    std::string name;
    std::string old_owner;
    std::string new_owner;
};
// Nothing when the body is not what it should be.
std::optional<OwnerChange> ReadOwnerChange(GDBusMessage* signal);

struct Credentials {
    std::optional<uid_t> uid;
    std::optional<pid_t> pid;
};
Credentials ReadCredentials(GDBusMessage* reply);

// What an endpoint answers to the question of one whom it does not know; nobody else answers so.
GVariant* UnknownPartner();
bool IsUnknownPartner(GDBusMessage* answer);

// The same for who may not open a direct path before it is invited.
GVariant* WaitForInvitation();
bool HasToWait(GDBusMessage* answer);

// The match rule for the changes of a name's owner.
std::string OwnerChangeRule(const std::string& name);

}  // namespace bus_message

#endif
