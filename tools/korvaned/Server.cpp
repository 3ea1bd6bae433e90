// Listening, the access list, the registry of links and applications, the
// limits and the shutdown.
#include "Server.h"

#include <chrono>
#include <cstdio>

#include <korvane/KvnDefs.h>

#include "ServiceLog.h"
#include "ServiceProcess.h"
#include "Session.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace {

// Application ids must stay within what a receiver accepts in a header.
constexpr int kMaxApplicationId = 128000;

}  // namespace

Server::Server(const ServiceOptions& options, const std::string& connectionString)
    : options_(options), connectionString_(connectionString), listening_(INVALID_SOCKET), stopping_(false),
      startTick_(KvnGetTickCount()), nextId_(1), connexions_(0), live_(0), finished_(0), nextSerial_(1) {
    comm_.nTimeOutConnect = options.connectTimeoutMs;
    comm_.nNbRetrySend = options.retryCount;
    comm_.nTimeOutAck = options.ackTimeoutMs;
    comm_.nPeriodeHB = options.hbPeriodMs;
    comm_.nNbPeriodeHB = options.hbCount;
    comm_.nPortHB = options.hbPort;
    comm_.bMulticastHB = options.hbMode == HeartbeatMode::Multicast ? 1 : 0;
}

Server::~Server() {
    if (listening_ != INVALID_SOCKET) KvnCloseSocket(listening_);
}

bool Server::Listen() {
    const DWORD address = KvnInetAddr(options_.listenAddress.c_str());
    if (address == 0xFFFFFFFFu && options_.listenAddress != "255.255.255.255") {
        ServiceLog(0, "bad listening address '%s'", options_.listenAddress.c_str());
        return false;
    }
    listening_ = KvnTcpListen(address, static_cast<unsigned short>(options_.port), 64);
    if (listening_ == INVALID_SOCKET) {
        ServiceLog(0, "cannot listen on %s:%d: %s", options_.listenAddress.c_str(), options_.port,
                   KvnSocketErrorText(KvnSocketError()).c_str());
        return false;
    }
    const unsigned short port = KvnGetLocalPort(listening_);
    ServiceLog(1, "listening on %s:%u", options_.listenAddress.c_str(), port);
    std::string allowed;
    for (const Network& n : options_.allowed) allowed += (allowed.empty() ? "" : ", ") + NetworkText(n);
    if (!ListensOnLoopback(options_)) {
        ServiceLog(kLogWarning, "listening beyond loopback on %s: links are accepted from %s; every one of them "
                   "can run SQL on the database", options_.listenAddress.c_str(), allowed.c_str());
    } else {
        ServiceLog(1, "links accepted from %s", allowed.c_str());
    }
    if (!options_.portFile.empty() && !WriteFileAtomically(options_.portFile, std::to_string(port) + "\n")) {
        ServiceLog(0, "cannot write the port file '%s'", options_.portFile.c_str());
    }
    return true;
}

void Server::Serve() {
    while (!stopping_.load()) {
        SOCKET s = KvnAccept(listening_, INFINITE);
        if (s != INVALID_SOCKET) {
            if (!Accept(s)) KvnCloseSocket(s);
        } else if (!stopping_.load()) {
            // Out of descriptors, or a connection reset before it was taken:
            // wait a little rather than spin on the same failure.
            ServiceLog(2, "accept failed: %s", KvnSocketErrorText(KvnSocketError()).c_str());
            KvnSleep(100);
        }
    }
    std::lock_guard<std::mutex> guard(lock_);
    KvnCloseSocket(listening_);
    listening_ = INVALID_SOCKET;
}

void Server::Stop() {
    // Under the lock that Serve closes the socket with: a descriptor number
    // closed meanwhile may already name another socket.
    std::lock_guard<std::mutex> guard(lock_);
    if (stopping_.exchange(true) || listening_ == INVALID_SOCKET) return;
    // Wakes the accept: a listening socket shut down reports an error at once.
    KvnShutdown(listening_);
}

bool Server::Accept(SOCKET s) {
    // Checked before a byte is read, so that a refused peer has nothing
    // parsed on its behalf.
    DWORD peer = 0;
    if (KvnGetPeerAddress(s, &peer) != 0 || !IsAllowed(options_.allowed, peer)) {
        stats_.LinkRefused();
        ServiceLog(1, "link from %s refused: not in the allowed networks", AddressText(peer).c_str());
        return false;
    }
    std::unique_lock<std::mutex> guard(lock_);
    if (live_ >= options_.maxSockets) {
        guard.unlock();
        stats_.LinkRefused();
        ServiceLog(1, "link from %s refused: %d links already open", AddressText(peer).c_str(), options_.maxSockets);
        return false;
    }
    KvnSetSocketOption(s, KVN_TCP_NODELAY, 1);  // every message waits for an acknowledgement
    Session* session = new Session(*this, s, nextSerial_++);
    sessions_.insert(session);
    ++live_;
    guard.unlock();
    if (KvnBeginThread(&Session::Run, session)) return true;
    ServiceLog(0, "cannot start a thread for a new link");
    session->DetachSocket();  // closed by the caller
    SessionEnded(session);
    return false;
}

bool Server::BeginRequest(Session* session) {
    std::lock_guard<std::mutex> guard(lock_);
    if (stopping_.load()) return false;
    session->busy = true;
    return true;
}

bool Server::EndRequest(Session* session) {
    std::lock_guard<std::mutex> guard(lock_);
    session->busy = false;
    if (!stopping_.load()) return true;
    ++finished_;
    return false;
}

void Server::SessionEnded(Session* session) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        sessions_.erase(session);
    }
    // Deleted outside the lock: closing a database connection may take time.
    delete session;
    std::lock_guard<std::mutex> guard(lock_);
    --live_;
    sessionEnded_.notify_all();
}

Server::ShutdownCounts Server::Shutdown(DWORD boundMs) {
    ShutdownCounts counts;
    std::unique_lock<std::mutex> guard(lock_);
    counts.links = static_cast<int>(sessions_.size());
    // Idle links are closed now; a busy one is closed by its own thread
    // once its answer has gone (EndRequest then reports the stop).
    for (Session* s : sessions_) {
        if (!s->busy) s->Interrupt();
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(boundMs);
    sessionEnded_.wait_until(guard, deadline, [this] { return live_ == 0; });
    counts.finished = finished_;
    for (Session* s : sessions_) counts.abandoned += s->busy ? 1 : 0;
    // Past the bound: the links still busy are cut; their requests run on
    // in the database until the process ends.
    for (Session* s : sessions_) s->Interrupt();
    return counts;
}

std::string Server::CountsText() {
    std::lock_guard<std::mutex> guard(lock_);
    return std::to_string(applications_.size()) + " applications, " + std::to_string(connexions_) +
           " connections, " + std::to_string(sessions_.size()) + " links";
}

std::string Server::StatsPage() {
    int links = 0, applications = 0, connexions = 0, busy = 0;
    {
        std::lock_guard<std::mutex> guard(lock_);
        links = static_cast<int>(sessions_.size());
        applications = static_cast<int>(applications_.size());
        connexions = connexions_;
        for (Session* s : sessions_) busy += s->busy ? 1 : 0;
    }
    std::string page = "# korvaned " KVN_VERSION "\n";
    page += "uptime_seconds " + std::to_string((KvnGetTickCount() - startTick_) / 1000) + "\n";
    page += "links " + std::to_string(links) + "\n";
    page += "applications " + std::to_string(applications) + "\n";
    page += "connections " + std::to_string(connexions) + "\n";
    page += "requests_under_way " + std::to_string(busy) + "\n";
    return page + stats_.Report();
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
