// Descriptors that came from somebody else. Internal.
//
// To close one may take as long as its maker likes: a socket lingers over what it has not sent, a
// file system of one's own answers when it wants to, and with the last end of a socket all that
// goes that was sent to it and not read. Nobody waits for that here.
#ifndef PELMAR_FOREIGN_DESCRIPTOR_H
#define PELMAR_FOREIGN_DESCRIPTOR_H

#include <sys/types.h>

#include <cstddef>
#include <vector>

#include "descriptor.h"

// Memory at once; anything else is closed by a thread that does nothing else.
void CloseElsewhere(int descriptor);
using ForeignDescriptor = OwnedDescriptor<CloseElsewhere>;

// For the end of a connected socket, which the other side sees also where somebody else holds the
// descriptor. What came by it and was not read is closed elsewhere.
void CloseSocketEnd(int descriptor);
using SocketEnd = OwnedDescriptor<CloseSocketEnd>;

// What a socket has, without waiting, and all descriptors that came with it: the kernel closes what
// there is no room for, in the thread that reads.
struct Received {
    ssize_t size;  // as recvmsg returns it, and errno with it
    std::vector<ForeignDescriptor> descriptors;
    bool is_short;  // this process had no room for more of them
};
Received Receive(int socket, char* buffer, std::size_t size);

#endif
