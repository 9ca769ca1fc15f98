// Messages between the demo's client, service and driver processes. Each message is one packet
// on a SOCK_SEQPACKET socket pair; buffers travel as descriptors beside it (SCM_RIGHTS).
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>

namespace zel_prof {
namespace demo {

enum MessageKind : uint32_t {
    kRunIteration = 1,  // client -> service: run one inference
    kIterationDone,     // service -> client
    kClientProfile,     // client -> service: packed client profile, with its descriptor
    kNoClientProfile,   // client -> service: nothing to hand over in this mode
    kProfileTaken,      // service -> client
    kDeviceBuffer,      // service -> driver: an operation's device buffer, with its descriptor
    kRunOp,             // service -> driver: run one operation of one iteration
    kOpDone,            // driver -> service
    kQuit,              // service -> driver
};

struct Message {
    uint32_t kind;
    uint32_t detail;  // device buffer: detail label sets
    uint64_t op;
    uint64_t iteration;
    uint64_t size;  // bytes of the buffer that comes with the message
    uint64_t max_iter;
    uint64_t split_offset;
};

// One message, with a descriptor when `fd` is not -1. False when the peer is gone.
bool Send(int sock, const Message& message, int fd = -1);
// The next message; a descriptor that came with it lands in `fd` when given. False on a closed
// socket or a malformed packet.
bool Receive(int sock, Message* message, android::base::unique_fd* fd = nullptr);

}  // namespace demo
}  // namespace zel_prof
