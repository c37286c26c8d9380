// Bytes on a socket that descriptors come with.
#ifndef PELMAR_TESTS_PASSED_DESCRIPTORS_H
#define PELMAR_TESTS_PASSED_DESCRIPTORS_H

#include <sys/socket.h>

#include <algorithm>
#include <vector>

// What sendmsg returns.
inline ssize_t SendWith(int socket, const std::vector<char>& bytes,
                        const std::vector<int>& descriptors)
{
    iovec part = {const_cast<char*>(bytes.data()), bytes.size()};
    const std::size_t size = descriptors.size() * sizeof(int);
    // Of cmsghdr, for its alignment; one too many for the rest of the last.
    std::vector<cmsghdr> control(CMSG_SPACE(size) / sizeof(cmsghdr) + 1);
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = CMSG_SPACE(size);
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(size);
        std::copy_n(reinterpret_cast<const unsigned char*>(descriptors.data()), size,
                    CMSG_DATA(header));
    }
    return sendmsg(socket, &message, MSG_NOSIGNAL);
}

#endif
