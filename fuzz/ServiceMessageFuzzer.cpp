// Messages of arbitrary bytes from one client of the modem service: its
// decoding, every kind of request and control command, and the state of
// the service afterwards. Each input is a sequence of packets, each a
// 16-bit little-endian length and that many bytes, on a connection of its
// own.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "service/ModemServer.h"

namespace {

struct Rig {
    xalservice::ModemServer server{xalservice::ModemServer::Options(), [](const std::string&) {}};

    Rig() { server.modem().replaceTable(xalsim::factoryTable()); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Rig sRig;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) return 0;
    sRig.server.adopt(android::base::unique_fd(ends[0]));
    android::base::unique_fd client(ends[1]);
    for (size_t at = 0; at + 2 <= size;) {
        const size_t length = std::min<size_t>(data[at] | data[at + 1] << 8, size - at - 2);
        at += 2;
        send(client.get(), data + at, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        at += length;
        sRig.server.pump();
    }
    // Whatever the service answered is read and let go, then the client leaves.
    std::vector<uint8_t> answer(70000);
    while (recv(client.get(), answer.data(), answer.size(), MSG_DONTWAIT) > 0) {
    }
    client.reset();
    sRig.server.pump();
    // A fresh modem for the next input; its clients are all gone.
    sRig.server.modem().reset();
    sRig.server.modem().replaceTable(xalsim::factoryTable());
    return 0;
}
