// The test service's heartbeat sender.
#include "support/HeartBeatSender.h"

#include <chrono>

#include <korvane/KvnDefs.h>

#include "platform/Sockets.h"

unsigned short FreeUdpPort() {
    SOCKET s = KvnUdpSocket();
    if (s == INVALID_SOCKET) return 0;
    unsigned short port = 0;
    if (KvnBind(s, KvnLoopbackAddress(), 0) == 0) port = KvnGetLocalPort(s);
    KvnCloseSocket(s);
    return port;
}

peer::Bytes HeartBeatDatagram(int idApplication) {
    return peer::Encode(peer::Msg(KVN_HEART_BEAT, idApplication, 0));
}

HeartBeatSender::HeartBeatSender(unsigned short port) : port_(port), sock_(KvnUdpSocket()) {}

HeartBeatSender::~HeartBeatSender() {
    Stop();
    if (sock_ != INVALID_SOCKET) KvnCloseSocket(sock_);
}

bool HeartBeatSender::Send(const peer::Bytes& bytes) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (sock_ == INVALID_SOCKET) return false;
    int n = KvnSendTo(sock_, reinterpret_cast<const char*>(bytes.data()),
                      static_cast<int>(bytes.size()), KvnLoopbackAddress(), port_);
    return n == static_cast<int>(bytes.size());
}

void HeartBeatSender::Start(DWORD periodMs) {
    Stop();
    {
        std::lock_guard<std::mutex> guard(mutex_);
        stop_ = false;
    }
    thread_ = std::thread([this, periodMs] { Loop(periodMs); });
}

void HeartBeatSender::Stop() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void HeartBeatSender::Loop(DWORD periodMs) {
    const peer::Bytes datagram = HeartBeatDatagram();
    for (;;) {
        Send(datagram);
        std::unique_lock<std::mutex> lock(mutex_);
        if (wake_.wait_for(lock, std::chrono::milliseconds(periodMs), [this] { return stop_; })) {
            return;
        }
    }
}
