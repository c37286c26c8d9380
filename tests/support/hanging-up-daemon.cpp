#include "hanging-up-daemon.h"

#include <gio/gio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

void Write(int socket, const std::string& text)
{
    if (send(socket, text.data(), text.size(), MSG_NOSIGNAL) < 0)
        return;  // the caller has hung up first, which is as good
}

// The answer to Hello, which is the first call of every connection.
std::string Greeting()
{
    g_autoptr(GDBusMessage) reply = g_dbus_message_new();
    g_dbus_message_set_message_type(reply, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_serial(reply, 1);
    g_dbus_message_set_reply_serial(reply, 1);
    g_dbus_message_set_sender(reply, "org.freedesktop.DBus");
    g_dbus_message_set_body(reply, g_variant_new("(s)", ":1.1"));
    gsize size = 0;
    g_autofree guchar* blob =
        g_dbus_message_to_blob(reply, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    return {reinterpret_cast<const char*>(blob), size};
}

// Takes what comes up to `end`; the rest stays in `come`. What was before it goes to `before`.
bool ReadTo(int socket, const char* end, std::string& come, std::string* before = nullptr)
{
    char buffer[4096];
    while (come.find(end) == std::string::npos) {
        const ssize_t count = recv(socket, buffer, sizeof(buffer), 0);
        if (count <= 0)
            return false;
        come.append(buffer, static_cast<std::size_t>(count));
    }
    if (before != nullptr)
        *before = come.substr(0, come.find(end));
    come.erase(0, come.find(end) + std::strlen(end));
    return true;
}

// The authentication as GIO's client does it, and one message.
void Greet(int socket)
{
    std::string come;
    if (ReadTo(socket, "AUTH\r\n", come))
        Write(socket, "REJECTED EXTERNAL\r\n");
    // Who it is may come with that or when it is asked for.
    std::string user;
    if (ReadTo(socket, "AUTH EXTERNAL", come) && ReadTo(socket, "\r\n", come, &user) &&
        user.empty()) {
        Write(socket, "DATA\r\n");
        if (!ReadTo(socket, "DATA", come) || !ReadTo(socket, "\r\n", come))
            return;
    }
    Write(socket, "OK 0123456789abcdef0123456789abcdef\r\n");
    if (ReadTo(socket, "NEGOTIATE_UNIX_FD\r\n", come))
        Write(socket, "AGREE_UNIX_FD\r\n");
    if (ReadTo(socket, "BEGIN\r\n", come) && ReadTo(socket, "Hello", come))
        Write(socket, Greeting());
}

}  // namespace

HangingUpDaemon::HangingUpDaemon() : m_listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const std::string name = "pelmar-hanging-up-" + std::to_string(getpid());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, name.size());
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (bind(m_listening, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        listen(m_listening, SOMAXCONN) != 0)
        throw std::runtime_error("cannot listen at " + name + ": " + std::strerror(errno));
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:abstract=" + name).c_str(), 1);
    m_thread = std::thread([this] { Serve(); });
}

HangingUpDaemon::~HangingUpDaemon()
{
    shutdown(m_listening, SHUT_RDWR);
    m_thread.join();
    close(m_listening);
}

void HangingUpDaemon::Serve()
{
    for (;;) {
        const int connection = accept4(m_listening, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0)
            return;
        Greet(connection);
        close(connection);
        ++m_calls;
    }
}
