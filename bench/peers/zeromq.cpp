// ZeroMQ over ipc: REQ and REP, and PUB and SUB.

#include <zmq.h>

#include "peer.h"

namespace {

using peer::Bytes;

int Checked(int result, const char* what)
{
    if (result < 0)
        throw std::runtime_error(std::string(what) + ": " + zmq_strerror(zmq_errno()));
    return result;
}

void* Socket(int type)
{
    static void* const context = zmq_ctx_new();
    return zmq_socket(context, type);
}

void Set(void* socket, int option, int value)
{
    Checked(zmq_setsockopt(socket, option, &value, sizeof(value)), "zmq_setsockopt");
}

std::string Endpoint(const peer::Arguments& arguments)
{
    return "ipc://" + arguments.address;
}

// A large one is handed over, a small one is cheaper to copy.
void Send(void* socket, Bytes&& data)
{
    constexpr std::size_t large = 16 * 1024UL;
    if (data.size() < large) {
        Checked(zmq_send(socket, data.data(), data.size(), 0), "zmq_send");
        return;
    }
    auto* owned = new Bytes(std::move(data));
    zmq_msg_t message;
    zmq_msg_init_data(
        &message, owned->data(), owned->size(),
        [](void* /*bytes*/, void* owner) { delete static_cast<Bytes*>(owner); }, owned);
    Checked(zmq_msg_send(&message, socket, 0), "zmq_msg_send");
}

Bytes Receive(void* socket)
{
    zmq_msg_t message;
    zmq_msg_init(&message);
    Checked(zmq_msg_recv(&message, socket, 0), "zmq_msg_recv");
    const auto* bytes = static_cast<const char*>(zmq_msg_data(&message));
    Bytes data(bytes, bytes + zmq_msg_size(&message));
    zmq_msg_close(&message);
    return data;
}

void Serve(const peer::Arguments& arguments)
{
    void* socket = Socket(ZMQ_REP);
    Checked(zmq_bind(socket, Endpoint(arguments).c_str()), "zmq_bind");
    peer::Say("ready");
    for (;;) {
        Bytes data = Receive(socket);
        Send(socket, peer::Answer(data));
    }
}

void Request(const peer::Arguments& arguments)
{
    void* socket = Socket(ZMQ_REQ);
    Checked(zmq_connect(socket, Endpoint(arguments).c_str()), "zmq_connect");
    peer::RunClient([socket](Bytes& data) {
        Send(socket, std::move(data));
        data = Receive(socket);
    });
}

// XPUB is PUB that tells who subscribes. Without a high water mark it drops nothing.
void Publish(const peer::Arguments& arguments)
{
    void* socket = Socket(ZMQ_XPUB);
    Set(socket, ZMQ_SNDHWM, 0);
    Set(socket, ZMQ_XPUB_VERBOSE, 1);
    Checked(zmq_bind(socket, Endpoint(arguments).c_str()), "zmq_bind");
    std::size_t joined = 0;
    peer::RunPublisher(
        [&](std::size_t receivers) {
            for (; joined < receivers; ++joined)
                Receive(socket);
        },
        [&](const Bytes& data) {
            Checked(zmq_send(socket, data.data(), data.size(), 0), "zmq_send");
        },
        [] {});
}

void Count(const peer::Arguments& arguments)
{
    void* socket = Socket(ZMQ_SUB);
    Set(socket, ZMQ_RCVHWM, 0);
    Checked(zmq_setsockopt(socket, ZMQ_SUBSCRIBE, "", 0), "zmq_setsockopt");
    Checked(zmq_connect(socket, Endpoint(arguments).c_str()), "zmq_connect");
    peer::Say("ready");
    for (peer::Tally tally;;)
        tally.Add(Receive(socket));
}

}  // namespace

int main(int argc, char** argv)
{
    return peer::Run(
        argc, argv,
        {{"server", Serve}, {"client", Request}, {"publisher", Publish}, {"receiver", Count}});
}
