// The service's sign of life: a bare 16-byte message header with function
// code KVN_HEART_BEAT, sent as a UDP datagram every period to the broadcast
// address, a multicast group or one address, on the heartbeat port.
#ifndef KORVANED_HEARTBEAT_H
#define KORVANED_HEARTBEAT_H

#include <korvane/platform/KvnTypes.h>

#include "Options.h"

class Heartbeat {
public:
    Heartbeat();
    ~Heartbeat();
    Heartbeat(const Heartbeat&) = delete;
    Heartbeat& operator=(const Heartbeat&) = delete;

    // Starts the sending thread; false when the socket or the thread cannot
    // be made or the address is not an IPv4 address.
    bool Start(const ServiceOptions& options);
    // Stops the thread and closes the socket.
    void Stop();

private:
    static unsigned Run(void* self);

    SOCKET sock_;
    DWORD address_;
    unsigned short port_;
    DWORD periodMs_;
    HANDLE stop_;
    HANDLE thread_;
};

#endif
