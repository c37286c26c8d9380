// The limit: a stream socket between the two processes and nothing else. A message is four bytes of
// length and the bytes; both ends block.

#include "frame.h"
#include "peer.h"

namespace {

using peer::Bytes;

// One call where the message is as long as the one before it. There is never one behind it.
bool Receive(int other, Bytes& data)
{
    std::uint32_t size = 0;
    iovec parts[] = {{&size, sizeof(size)}, {data.data(), data.size()}};
    const ssize_t count = readv(other, parts, 2);
    if (count < static_cast<ssize_t>(sizeof(size)))
        return false;
    const std::size_t come = static_cast<std::size_t>(count) - sizeof(size);
    data.resize(size);
    return frame::ReadAll(other, data.data() + come, size - come);
}

void Serve(const peer::Arguments& arguments)
{
    const int listener = frame::Listen(arguments.address);
    peer::Say("ready");
    const int client = accept(listener, nullptr, nullptr);
    Bytes data;
    while (Receive(client, data)) {
        data = peer::Answer(data);
        frame::Send(client, data);
    }
}

void Request(const peer::Arguments& arguments)
{
    const int server = frame::Connect(arguments.address);
    peer::RunClient([server](Bytes& data) {
        frame::Send(server, data);
        if (!Receive(server, data))
            throw frame::Failure("the server has gone");
    });
}

}  // namespace

int main(int argc, char** argv)
{
    return peer::Run(argc, argv, {{"server", Serve}, {"client", Request}});
}
