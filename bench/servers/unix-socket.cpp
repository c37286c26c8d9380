// The physical limit: an echo behind one relay, over AF_UNIX stream sockets. A message is four
// bytes of length and the bytes; the relay, like a bus daemon, reads it whole and passes it on.
//
//   serve-unix-socket PATH    listens there; out: serving

#include <sys/socket.h>

#include "frame.h"
#include "server.h"

namespace {

void Echo(int peer)
{
    frame::Bytes data;
    while (frame::Receive(peer, data))
        frame::Send(peer, data);
}

void Relay(int client, int server)
{
    frame::Bytes data;
    while (frame::Receive(client, data)) {
        frame::Send(server, data);
        frame::Receive(server, data);
        frame::Send(client, data);
    }
}

void Serve(const std::string& path)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        throw frame::Failure("socketpair");
    const pid_t echo = fork();
    if (echo == 0) {
        close(ends[0]);
        Echo(ends[1]);
        return;
    }
    close(ends[1]);
    const int listener = frame::Listen(path);
    server::Say("serving ");
    Relay(accept(listener, nullptr, nullptr), ends[0]);
}

}  // namespace

int main(int argc, char** argv)
{
    server::Run(argc, argv, Serve);
}
