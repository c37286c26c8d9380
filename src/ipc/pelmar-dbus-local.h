/// @file
/// The channel: point-to-point traffic between two processes over the D-Bus system bus.
#ifndef PELMAR_DBUS_LOCAL_H
#define PELMAR_DBUS_LOCAL_H

#include <gio/gio.h>

#include <map>
#include <string>
#include <vector>

#include "PTMutex.h"
#include "pelmar-export.h"

/// The two ends of a channel differ only in which bus names they pulse and which they watch. This
/// header declares the service end; with PELMAR_ROLE_CLIENT defined it declares the client end, a
/// class of its own for the linker, out of the library pelmar-dbus-local-client. One program may
/// use both, each from its own source file.
#ifdef PELMAR_ROLE_CLIENT
inline namespace pelmar_client {
#endif

/// What a channel knows of one partner. Copies and destruction do not touch the three handles:
/// the channel releases them one by one.
struct PELMAR_API ConnectionPartner {
    std::string m_partner_dbus_name;  ///< the partner's unique bus name
    guint m_proxy_watch = 0;          ///< watch on that name; 0: none
    GDBusProxy* m_proxy = nullptr;    ///< the partner's object, one reference; null: none
    guint m_signal_id = 0;            ///< subscription to the partner's signals; 0: none
    int m_handshake = 0;              ///< the partner's stage as this channel has seen it
};

/// A channel finds the process that serves the other end of the same channel name, runs a
/// three-stage handshake with it (SYN, SYN_ACK, ACK) and then carries byte buffers both ways. Any
/// number of partners may be connected at once; each is known by its unique bus name (":1.57").
///
/// An application derives from the class and overrides the three Handle functions. There is no
/// start operation: construction brings the channel onto the bus. Everything after it happens in
/// callbacks that GLib dispatches in the main context that was the thread's default during
/// construction, so the application has to run that context's main loop.
///
/// Errors: nothing is thrown and no function returns an error. Failures go to the platform log
/// (platform-log.h, tag "kestrin"); each function below says what else they lead to.
///
/// Threads and lock: use a channel only from the thread that runs its main loop. It has one lock,
/// a plain mutex that is not recursive. The handshake callbacks hold it while they run, and so
/// HandleConnectionReady is called with it held. HandleMessage and HandleNotification are called
/// without it.
///
/// The bus has to let the process own the channel's stage names and talk to its partners: the
/// system bus's policy denies both unless a policy file for the channel is installed.
class PELMAR_API PelmarDbusLocal {
public:
    /// Connects to the system bus, exports the channel's object, listens for the other end's three
    /// stage names and announces itself. Synchronous: it blocks for a few exchanges with the bus
    /// daemon, and for as long as the daemon takes to answer.
    ///
    /// `name` is the channel's name; both ends use the same one. It becomes part of bus names and
    /// of an object path and is used unchanged: letters, digits and underscores, not starting with
    /// a digit, always work. With any other name the bus calls that it does not suit fail.
    ///
    /// If the system bus cannot be reached the channel stays off the bus for good and does nothing.
    /// If the object cannot be exported (a channel of the same name lives on this process's
    /// connection) the handshake works and the other end's Send calls fail.
    explicit PelmarDbusLocal(std::string name);

    /// Releases the partners and the connection, reports no partner as lost and takes no lock.
    ///
    /// The exported object and the listening for the stage names stay on the connection, which the
    /// process shares, with the channel's address: destroy a channel only when its main context
    /// will dispatch nothing more, as a rule at the end of the process.
    virtual ~PelmarDbusLocal();

    PelmarDbusLocal(const PelmarDbusLocal&) = delete;
    PelmarDbusLocal& operator=(const PelmarDbusLocal&) = delete;

    /// Answers a partner's Send call: `data` is what the partner sent, the result is the reply.
    /// Both may be empty and may hold any bytes. Called by the main loop's thread without the lock;
    /// the partner waits, and so does every other callback of the main context, until it returns.
    /// An override must not throw. The default logs the bytes, writes them and a newline to
    /// standard output, and replies "Default handler from : " and this process's unique bus name.
    virtual std::vector<char> HandleMessage(std::vector<char>& data);

    /// Receives a partner's notification. Called by the main loop's thread without the lock; must
    /// not throw. The default logs the bytes and writes them and a newline to standard output.
    virtual void HandleNotification(std::vector<char>& data);

    /// Told when `partner`, a unique bus name, becomes ready for traffic (`state` true) or is lost
    /// (false). A partner may be reported ready more than once, and lost without having been ready.
    /// While the call with false runs, the partner's record is still there and IsConnectionReady
    /// may still answer true for it.
    ///
    /// Called by the main loop's thread with the channel's lock held. An override may call
    /// SendNotification and IsConnectionReady, which do not take the lock. It must not run a nested
    /// main loop, or wait for another thread that does: the next handshake callback would wait for
    /// the lock for ever. The default only logs.
    virtual void HandleConnectionReady(bool state, const std::string& partner);

    /// Not supported: sends nothing, logs that, and returns an empty vector.
    std::vector<char> SendMessage(std::vector<char>& data);

    /// Sends `data` to every partner, in the byte order of their unique names. Partners that are
    /// not ready are logged and left out. Does not change `data`; it may be empty. Does not wait:
    /// the bytes are queued for the bus. A message of more than 32 MiB makes the bus daemon
    /// disconnect the process.
    void SendNotification(std::vector<char>& data);

    /// Sends `data` to the one partner with the unique bus name `owner`; logs an error and sends
    /// nothing when there is no such partner or it is not ready.
    void SendNotification(std::vector<char>& data, const std::string& owner);

    /// True when the handshake with the partner of that unique bus name is complete. Asking about
    /// an unknown name adds an empty record for it to the partner table.
    bool IsConnectionReady(const std::string& owner);

private:
    enum {
        CONNECTION_NOT_STARTED = 0,
        CONNECTION_HANDSHAKE_SYN = 1,
        CONNECTION_HANDSHAKE_SYN_ACK = 2,
        CONNECTION_HANDSHAKE_ACK = 3
    };

    static constexpr const char* PELMAR_DBUS_PREFIX = "org.vaska.Pelmar";
    static constexpr const char* PELMAR_DBUS_OBJ_NAME = "/org/vaska/pelmar/CommunicationChannel";
    static constexpr const char* PELMAR_DBUS_OBJ_IFACE = "org.vaska.pelmar.DbusCommunication";
    static constexpr const char* PELMAR_DBUS_OBJ_METHOD = "Send";
    static constexpr const char* PELMAR_DBUS_SIG_NAME = "SendSignal";
    static constexpr const char* PELMAR_DBUS_SYN_SUFFIX = "_SYN";
    static constexpr const char* PELMAR_DBUS_SYNACK_SUFFIX = "_SYN_ACK";
    static constexpr const char* PELMAR_DBUS_ACK_SUFFIX = "_ACK";
#ifdef PELMAR_ROLE_CLIENT
    static constexpr const char* BROADCAST_PREFIX = "_CLIENT";
    static constexpr const char* LISTEN_PREFIX = "_SERVICE";
#else
    static constexpr const char* BROADCAST_PREFIX = "_SERVICE";
    static constexpr const char* LISTEN_PREFIX = "_CLIENT";
#endif
    static const char* const INTERFACE_XML;
    static const GDBusInterfaceVTable m_vtable;

    // `function` is the constructor or the callback that the log lines of the step name.
    bool Connect(const char* function);
    void RegisterObject(const char* function);
    guint WatchStage(const char* suffix, GDBusSignalCallback handler);
    std::string BaseName() const;
    void BroadcastName(std::string& notification_name);

    // Steps of the handshake callbacks, with the lock held.
    bool IsPartnersRelease(const std::string& oldOwner, const std::string& newOwner) const;
    bool WirePartner(GDBusConnection* connection, const std::string& oldOwner,
                     const char* function);
    void CreateProxy(GDBusConnection* connection, ConnectionPartner& partner, const char* function);
    void BroadcastStage(const char* suffix);

    static void cb_SynNameOwnerChanged(GDBusConnection* connection, const gchar* sender_name,
                                       const gchar* object_path, const gchar* interface_name,
                                       const gchar* signal_name, GVariant* parameters,
                                       gpointer user_data);
    static void cb_SynAckNameOwnerChanged(GDBusConnection* connection, const gchar* sender_name,
                                          const gchar* object_path, const gchar* interface_name,
                                          const gchar* signal_name, GVariant* parameters,
                                          gpointer user_data);
    static void cb_AckNameOwnerChanged(GDBusConnection* connection, const gchar* sender_name,
                                       const gchar* object_path, const gchar* interface_name,
                                       const gchar* signal_name, GVariant* parameters,
                                       gpointer user_data);
    static void cb_PartnerNameVanished(GDBusConnection* connection, const gchar* name,
                                       gpointer user_data);
    static void cb_MethodCall(GDBusConnection* connection, const gchar* sender,
                              const gchar* object_path, const gchar* interface_name,
                              const gchar* method_name, GVariant* parameters,
                              GDBusMethodInvocation* invocation, gpointer user_data);
    static void cb_SignalCall(GDBusConnection* connection, const gchar* sender_name,
                              const gchar* object_path, const gchar* interface_name,
                              const gchar* signal_name, GVariant* parameters, gpointer user_data);
    static std::vector<char> ConvertBytes(GVariant* parameters);
    static GVariant* ConvertBytes(std::vector<char>& data);

    // Constant after construction. The order of the fields, here and below, is part of the ABI.
    std::string m_name;
    std::string m_public_dbus_name;
    std::string m_object_name;
    GDBusNodeInfo* m_introspection_data = nullptr;
    guint m_owner_id = 0;
    guint m_reg_obj_id = 0;
    guint m_notification_watch_syn = 0;
    guint m_notification_watch_syn_ack = 0;
    guint m_notification_watch_ack = 0;

    // Written with m_mutex held; read by the loop's thread, with it or without.
    std::map<std::string, ConnectionPartner> m_partner;

    // The channel's own stage; it does not follow the partners'.
    int m_handshake = CONNECTION_NOT_STARTED;

    // The process's shared system-bus connection, one reference; null when it was not to be had.
    GDBusConnection* m_connection = nullptr;

    PTMutex m_mutex;
};

#ifdef PELMAR_ROLE_CLIENT
}
#endif

#endif
