#include "zel_prof/demo_protocol.h"

#include <android-base/cmsg.h>
#include <sys/socket.h>

#include <vector>

namespace zel_prof {
namespace demo {

bool Send(int sock, const Message& message, int fd) {
    std::vector<int> fds;
    if (fd >= 0) fds.push_back(fd);
    return android::base::SendFileDescriptorVector(sock, &message, sizeof(message), fds) ==
           static_cast<ssize_t>(sizeof(message));
}

bool Receive(int sock, Message* message, android::base::unique_fd* fd) {
    std::vector<android::base::unique_fd> fds;
    const ssize_t got =
            android::base::ReceiveFileDescriptorVector(sock, message, sizeof(*message), 1, &fds);
    if (got != static_cast<ssize_t>(sizeof(*message))) return false;
    if (fd != nullptr) {
        fd->reset(fds.empty() ? -1 : fds[0].release());
    }
    return true;
}

}  // namespace demo
}  // namespace zel_prof
