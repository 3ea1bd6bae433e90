// The service's side of the heartbeat, for the tests of the supervision: UDP
// datagrams sent to 127.0.0.1 on the port that the test service announced in
// its answer to the registration, either one at a time or at a steady period
// from a thread of its own.
#ifndef KVN_TESTS_SUPPORT_HEARTBEATSENDER_H
#define KVN_TESTS_SUPPORT_HEARTBEATSENDER_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <korvane/platform/KvnTypes.h>

#include "peer/WireCodec.h"

// A UDP port that was free a moment ago (the system's choice for a socket
// bound and closed at once), for the heartbeat of one test.
unsigned short FreeUdpPort();

// The bare header of a heartbeat: 16 bytes, function code KVN_HEART_BEAT.
peer::Bytes HeartBeatDatagram(int idApplication = 7);

class HeartBeatSender {
public:
    explicit HeartBeatSender(unsigned short port);
    ~HeartBeatSender();
    HeartBeatSender(const HeartBeatSender&) = delete;
    HeartBeatSender& operator=(const HeartBeatSender&) = delete;

    unsigned short Port() const { return port_; }
    // One datagram of exactly these bytes. False when it could not be sent.
    bool Send(const peer::Bytes& bytes);
    bool SendHeartBeat() { return Send(HeartBeatDatagram()); }

    // Sends a heartbeat now and then every periodMs until Stop; Start again
    // replaces the period. Sent() counts the heartbeats sent by the thread.
    void Start(DWORD periodMs);
    void Stop();
    int Sent() const { return sent_; }

private:
    void Loop(DWORD periodMs);

    unsigned short port_;
    SOCKET sock_;
    std::mutex mutex_;  // guards the socket's sends and stop_
    std::condition_variable wake_;
    bool stop_ = false;
    std::atomic<int> sent_{0};
    std::thread thread_;
};

#endif
