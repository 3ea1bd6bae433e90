// Listening, the application registry and the limits.
#include "Server.h"

#include <cstdio>
#include <fstream>

#include <korvane/KvnDefs.h>

#include "ServiceLog.h"
#include "Session.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace {

// Application ids must stay within what a receiver accepts in a header.
constexpr int kMaxApplicationId = 128000;

// Writes the port through a temporary file, so that a reader never sees a
// half-written one.
bool WritePortFile(const std::string& path, unsigned short port) {
    const std::string temporary = path + ".tmp";
    {
        std::ofstream out(temporary, std::ios::trunc);
        if (!out) return false;
        out << port << '\n';
        if (!out.flush()) return false;
    }
    return std::rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace

Server::Server(const ServiceOptions& options, const std::string& connectionString)
    : options_(options), connectionString_(connectionString), nextId_(1), connexions_(0), sessions_(0),
      nextSerial_(1) {
    comm_.nTimeOutConnect = options.connectTimeoutMs;
    comm_.nNbRetrySend = options.retryCount;
    comm_.nTimeOutAck = options.ackTimeoutMs;
    comm_.nPeriodeHB = options.hbPeriodMs;
    comm_.nNbPeriodeHB = options.hbCount;
    comm_.nPortHB = options.hbPort;
    comm_.bMulticastHB = options.hbMode == HeartbeatMode::Multicast ? 1 : 0;
}

int Server::Run() {
    const DWORD address = KvnInetAddr(options_.listenAddress.c_str());
    if (address == 0xFFFFFFFFu && options_.listenAddress != "255.255.255.255") {
        ServiceLog(0, "bad listening address '%s'", options_.listenAddress.c_str());
        return 1;
    }
    SOCKET listening = KvnTcpListen(address, static_cast<unsigned short>(options_.port), 64);
    if (listening == INVALID_SOCKET) {
        ServiceLog(0, "cannot listen on %s:%d (socket error %d)", options_.listenAddress.c_str(), options_.port,
                   KvnSocketError());
        return 1;
    }
    const unsigned short port = KvnGetLocalPort(listening);
    ServiceLog(1, "listening on %s:%u", options_.listenAddress.c_str(), port);
    if (!options_.portFile.empty() && !WritePortFile(options_.portFile, port)) {
        ServiceLog(0, "cannot write the port file '%s'", options_.portFile.c_str());
    }

    for (;;) {
        SOCKET s = KvnAccept(listening, INFINITE);
        if (s == INVALID_SOCKET) {
            // Out of descriptors, or a connection reset before it was taken:
            // wait a little rather than spin on the same failure.
            ServiceLog(2, "accept failed (socket error %d)", KvnSocketError());
            KvnSleep(100);
            continue;
        }
        if (sessions_.load() >= options_.maxSockets) {
            ServiceLog(1, "link refused: %d links already open", options_.maxSockets);
            KvnCloseSocket(s);
            continue;
        }
        KvnSetSocketOption(s, KVN_TCP_NODELAY, 1);  // every message waits for an acknowledgement
        Session* session = new Session(*this, s, nextSerial_++);
        sessions_.fetch_add(1);
        if (!KvnBeginThread(&Session::Run, session)) {
            ServiceLog(0, "cannot start a thread for a new link");
            sessions_.fetch_sub(1);
            delete session;  // closes the socket
        }
    }
}

int Server::RegisterApplication(int wantedId, unsigned long session) {
    std::lock_guard<std::mutex> guard(lock_);
    if (wantedId > 0 && wantedId <= kMaxApplicationId) {
        auto it = applications_.find(wantedId);
        if (it != applications_.end()) {
            // The same application again on a new link: the old link is
            // stale (its end has not been noticed yet) and loses it.
            it->second = session;
            return wantedId;
        }
    }
    if (static_cast<int>(applications_.size()) >= options_.maxClients) return KVN_ERROR_MAX_CLIENT_ATTEINT;
    if (wantedId > 0 && wantedId <= kMaxApplicationId) {
        applications_[wantedId] = session;
        return wantedId;
    }
    // The limit keeps the registry far below kMaxApplicationId, so a free id
    // is always found.
    while (applications_.count(nextId_)) nextId_ = nextId_ % kMaxApplicationId + 1;
    const int id = nextId_;
    nextId_ = nextId_ % kMaxApplicationId + 1;
    applications_[id] = session;
    return id;
}

void Server::UnregisterApplication(int id, unsigned long session) {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = applications_.find(id);
    if (it != applications_.end() && it->second == session) applications_.erase(it);
}

bool Server::IsApplicationRegistered(int id) {
    std::lock_guard<std::mutex> guard(lock_);
    return applications_.count(id) != 0;
}

bool Server::TakeConnexion() {
    std::lock_guard<std::mutex> guard(lock_);
    if (connexions_ >= options_.maxConnexions) return false;
    ++connexions_;
    return true;
}

void Server::ReleaseConnexion() {
    std::lock_guard<std::mutex> guard(lock_);
    if (connexions_ > 0) --connexions_;
}

void Server::SessionEnded() { sessions_.fetch_sub(1); }
