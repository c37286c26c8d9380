// nng over ipc: req and rep.

#include <nng/nng.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include <cstring>

#include "peer.h"

namespace {

using peer::Bytes;

void Check(int result, const char* what)
{
    if (result != 0)
        throw std::runtime_error(std::string(what) + ": " + nng_strerror(result));
}

// It takes 1 MiB at most otherwise.
void TakeAnySize(nng_socket socket)
{
    Check(nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, 0), "nng_socket_set_size");
}

std::string Url(const peer::Arguments& arguments)
{
    return "ipc://" + arguments.address;
}

void Send(nng_socket socket, const Bytes& data)
{
    nng_msg* message = nullptr;
    Check(nng_msg_alloc(&message, data.size()), "nng_msg_alloc");
    if (!data.empty())
        std::memcpy(nng_msg_body(message), data.data(), data.size());
    Check(nng_sendmsg(socket, message, 0), "nng_sendmsg");
}

Bytes Receive(nng_socket socket)
{
    nng_msg* message = nullptr;
    Check(nng_recvmsg(socket, &message, 0), "nng_recvmsg");
    const auto* bytes = static_cast<const char*>(nng_msg_body(message));
    Bytes data(bytes, bytes + nng_msg_len(message));
    nng_msg_free(message);
    return data;
}

void Serve(const peer::Arguments& arguments)
{
    nng_socket socket;
    Check(nng_rep0_open(&socket), "nng_rep0_open");
    TakeAnySize(socket);
    Check(nng_listen(socket, Url(arguments).c_str(), nullptr, 0), "nng_listen");
    peer::Say("ready");
    for (;;) {
        Bytes data = Receive(socket);
        Send(socket, peer::Answer(data));
    }
}

void Request(const peer::Arguments& arguments)
{
    nng_socket socket;
    Check(nng_req0_open(&socket), "nng_req0_open");
    TakeAnySize(socket);
    Check(nng_dial(socket, Url(arguments).c_str(), nullptr, 0), "nng_dial");
    peer::RunClient([socket](Bytes& data) {
        Send(socket, data);
        data = Receive(socket);
    });
}

}  // namespace

int main(int argc, char** argv)
{
    return peer::Run(argc, argv, {{"server", Serve}, {"client", Request}});
}
