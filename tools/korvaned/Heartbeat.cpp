// The heartbeat sender.
#include "Heartbeat.h"

#include <cstring>

#include <korvane/CMsgSocket.h>
#include <korvane/KvnDefs.h>

#include "ServiceLog.h"
#include "platform/Kernel.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

Heartbeat::Heartbeat()
    : sock_(INVALID_SOCKET), address_(0), port_(0), periodMs_(0), stop_(nullptr), thread_(nullptr) {}

Heartbeat::~Heartbeat() { Stop(); }

bool Heartbeat::Start(const ServiceOptions& options) {
    const std::string address = HeartbeatAddress(options);
    address_ = KvnInetAddr(address.c_str());
    if (address_ == 0xFFFFFFFFu && address != "255.255.255.255") {
        ServiceLog(0, "heartbeat: '%s' is not an IPv4 address", address.c_str());
        return false;
    }
    port_ = static_cast<unsigned short>(options.hbPort);
    periodMs_ = static_cast<DWORD>(options.hbPeriodMs);
    sock_ = KvnUdpSocket();
    if (sock_ == INVALID_SOCKET) {
        ServiceLog(0, "heartbeat: no UDP socket: %s", KvnSocketErrorText(KvnSocketError()).c_str());
        return false;
    }
    if (options.hbMode == HeartbeatMode::Broadcast) KvnSetSocketOption(sock_, KVN_SO_BROADCAST, 1);
    stop_ = KvnCreateEvent(TRUE, FALSE);
    thread_ = stop_ ? KvnBeginThreadEx(&Heartbeat::Run, this) : nullptr;
    if (!thread_) {
        ServiceLog(0, "heartbeat: cannot start its thread");
        Stop();
        return false;
    }
    const char* mode = options.hbMode == HeartbeatMode::Multicast ? "multicast"
                       : options.hbMode == HeartbeatMode::Unicast ? "unicast"
                                                                  : "broadcast";
    ServiceLog(1, "heartbeat: %s to %s:%d every %d ms", mode, address.c_str(), options.hbPort,
               options.hbPeriodMs);
    return true;
}

void Heartbeat::Stop() {
    if (thread_) {
        KvnSetEvent(stop_);
        KvnWaitForSingleObject(thread_, INFINITE);
        KvnCloseHandle(thread_);
        thread_ = nullptr;
    }
    if (stop_) {
        KvnCloseHandle(stop_);
        stop_ = nullptr;
    }
    if (sock_ != INVALID_SOCKET) {
        KvnCloseSocket(sock_);
        sock_ = INVALID_SOCKET;
    }
}

unsigned Heartbeat::Run(void* p) {
    Heartbeat* self = static_cast<Heartbeat*>(p);
    CEnteteMsgSocket header;
    header.nIdApplication = 0;
    header.nIdConnexion = 0;
    header.nFonction = KVN_HEART_BEAT;
    header.nNbParam = 0;
    header.nTailleData = 0;
    header.bUnicode = 1;
    char datagram[KVN_TAILLE_ENTETE];
    std::memcpy(datagram, &header, sizeof(datagram));
    bool failing = false;
    do {
        const bool sent = KvnSendTo(self->sock_, datagram, sizeof(datagram), self->address_, self->port_) ==
                          static_cast<int>(sizeof(datagram));
        // One line when sending starts failing, one when it works again.
        if (sent == failing) {
            if (sent) ServiceLog(1, "heartbeat: sending again");
            else ServiceLog(0, "heartbeat: cannot send: %s", KvnSocketErrorText(KvnSocketError()).c_str());
            failing = !sent;
        }
    } while (KvnWaitForSingleObject(self->stop_, self->periodMs_) == WAIT_TIMEOUT);
    return 0;
}
