// The service's side of the heartbeat: UDP datagrams to 127.0.0.1 on the
// announced port, one at a time or at a steady period from a thread of its own.
#ifndef KVN_TESTS_SUPPORT_HEARTBEATSENDER_H
#define KVN_TESTS_SUPPORT_HEARTBEATSENDER_H

#include <condition_variable>
#include <mutex>
#include <thread>

#include <korvane/platform/KvnTypes.h>

#include "peer/WireCodec.h"

// A UDP port on loopback that was free a moment ago (0 when none could be had).
unsigned short FreeUdpPort();

// The bare header of a heartbeat: 16 bytes, function code KVN_HEART_BEAT.
peer::Bytes HeartBeatDatagram(int idApplication = 7);

class HeartBeatSender {
public:
    explicit HeartBeatSender(unsigned short port);
    ~HeartBeatSender();
    HeartBeatSender(const HeartBeatSender&) = delete;
    HeartBeatSender& operator=(const HeartBeatSender&) = delete;

    // One datagram of exactly these bytes. False when it could not be sent.
    bool Send(const peer::Bytes& bytes);
    bool SendHeartBeat() { return Send(HeartBeatDatagram()); }

    // Sends a heartbeat now and then every periodMs until Stop; Start again
    // replaces the period.
    void Start(DWORD periodMs);
    void Stop();

private:
    void Loop(DWORD periodMs);

    unsigned short port_;
    SOCKET sock_;
    std::mutex mutex_;  // guards the socket's sends and stop_
    std::condition_variable wake_;
    bool stop_ = false;
    std::thread thread_;
};

#endif
