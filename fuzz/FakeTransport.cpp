// The byte transfers of net/Transport.h over the fuzz input (see
// FakeTransport.h). Linked instead of the real transport.
#include "FakeTransport.h"

#include <cstring>

#include "net/Transport.h"

namespace fuzzwire {

Stream& Current() {
    static Stream stream;
    return stream;
}

}  // namespace fuzzwire

int SockSend(SOCKET, const char* data, int length, DWORD) {
    if (length == 0) return 0;
    if (length < 0 || !data) return -1;
    fuzzwire::Stream& s = fuzzwire::Current();
    if (s.sendFails) return -1;
    s.sent.insert(s.sent.end(), data, data + length);
    return length;
}

int SockReceive(SOCKET, char* buffer, int length, DWORD) {
    if (length == 0) return 0;
    if (length < 0 || !buffer) return -1;
    fuzzwire::Stream& s = fuzzwire::Current();
    if (s.autoAck) {
        std::memset(buffer, 0, static_cast<std::size_t>(length));
        if (length > 6) buffer[6] = 1;  // KVN_ACK
        return length;
    }
    std::size_t n = static_cast<std::size_t>(length) < s.Left() ? static_cast<std::size_t>(length)
                                                                : s.Left();
    if (n) std::memcpy(buffer, s.data + s.pos, n);
    s.pos += n;
    return static_cast<int>(n);
}

int SockReceiveReply(SOCKET sock, char* buffer, int length, DWORD timeoutMs) {
    return SockReceive(sock, buffer, length, timeoutMs);
}
