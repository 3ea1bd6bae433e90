// The scripted service peer: listening, one thread per accepted socket, and
// the actions its scripts take on a connection.
#include "peer/ScriptedPeer.h"

#include <sstream>
#include <utility>

#include <gtest/gtest.h>

#include "platform/Sockets.h"

namespace peer {

namespace {

// The library never sends a body above 256000 bytes; a garbled header must
// not make the test allocate gigabytes.
const std::uint32_t kMaxBody = 1u << 20;

DWORD MsUntil(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left <= 0 ? 0 : static_cast<DWORD>(left);
}

Clock::time_point After(DWORD ms) { return Clock::now() + std::chrono::milliseconds(ms); }

}  // namespace

// ---- Connection -----------------------------------------------------------------------------

std::size_t Connection::ReadUntil(std::uint8_t* buffer, std::size_t n, Clock::time_point deadline) {
    std::size_t got = 0;
    while (got < n && Alive()) {
        DWORD left = MsUntil(deadline);
        if (left == 0 || KvnWaitReadable(sock_, left) <= 0) break;  // time-out or a failed socket
        int k = KvnRecv(sock_, reinterpret_cast<char*>(buffer + got), static_cast<int>(n - got));
        if (k <= 0) {
            clientClosed_ = true;  // an orderly close, a reset, or our own shutdown
            break;
        }
        got += static_cast<std::size_t>(k);
    }
    return got;
}

Message Connection::Read(DWORD timeoutMs) {
    const Clock::time_point deadline = After(timeoutMs);
    Message m;
    std::uint8_t head[kHeaderSize];
    std::size_t got = ReadUntil(head, kHeaderSize, deadline);
    m.raw.assign(head, head + got);
    m.at = Clock::now();
    if (got < kHeaderSize) return m;

    m.header = DecodeHeader(head);
    if (m.header.tailleData > kMaxBody) {
        m.error = "the header announces a body of " + std::to_string(m.header.tailleData) + " bytes";
        return m;
    }
    Bytes body(m.header.tailleData);
    got = ReadUntil(body.data(), body.size(), deadline);
    m.raw.insert(m.raw.end(), body.begin(), body.begin() + static_cast<std::ptrdiff_t>(got));
    m.at = Clock::now();
    if (got < body.size()) return m;

    m.complete = true;
    DecodeBody(m, body.data(), body.size());
    peer_.Record(index_, m);
    return m;
}

Message Connection::Expect(int fonction, DWORD timeoutMs) {
    Message m = Read(timeoutMs);
    if (!m.complete) {
        ADD_FAILURE() << "socket " << index_ << ": no whole message of function " << fonction << " within "
                      << timeoutMs << " ms; " << m.raw.size() << " bytes came: " << Hex(m.raw)
                      << (m.error.empty() ? "" : " (") << m.error << (m.error.empty() ? "" : ")");
    } else if (m.Fonction() != fonction) {
        ADD_FAILURE() << "socket " << index_ << ": expected function " << fonction << ", got " << m.Fonction()
                      << ": " << Hex(m.raw);
    } else if (!m.error.empty()) {
        ADD_FAILURE() << "socket " << index_ << ": function " << fonction << " arrived but its body does not decode ("
                      << m.error << "): " << Hex(m.raw);
    }
    return m;
}

Message Connection::ExpectMessage(const Message& expected, DWORD timeoutMs) {
    Message m = Expect(expected.Fonction(), timeoutMs);
    if (m.complete) {
        EXPECT_EQ(Hex(Encode(expected)), Hex(m.raw))
            << "socket " << index_ << ": the bytes of function " << expected.Fonction();
    }
    return m;
}

Bytes Connection::ReadRaw(std::size_t count, DWORD timeoutMs) {
    Bytes out(count);
    out.resize(ReadUntil(out.data(), count, After(timeoutMs)));
    return out;
}

void Connection::Ack(const Message& m) { SendRaw(AckHeader(m.header, 1)); }

void Connection::Refuse(const Message& m) { SendRaw(AckHeader(m.header, 0)); }

Message Connection::Answer(const Message& answer, DWORD ackTimeoutMs) {
    Message back;
    if (!Send(answer)) {
        ADD_FAILURE() << "socket " << index_ << ": could not send the answer of function " << answer.Fonction();
        return back;
    }
    back.raw = ReadRaw(kHeaderSize, ackTimeoutMs);
    back.at = Clock::now();
    if (back.raw.size() < kHeaderSize) {
        ADD_FAILURE() << "socket " << index_ << ": the answer of function " << answer.Fonction()
                      << " was not acknowledged within " << ackTimeoutMs << " ms (" << back.raw.size()
                      << " bytes came)";
        return back;
    }
    back.complete = true;
    back.header = DecodeHeader(back.raw.data());
    EXPECT_EQ(1, back.Fonction()) << "socket " << index_ << ": acknowledgement of function " << answer.Fonction()
                                  << ": " << Hex(back.raw);
    EXPECT_EQ(answer.IdApplication(), back.IdApplication());
    EXPECT_EQ(answer.IdConnexion(), back.IdConnexion());
    EXPECT_EQ(0, back.header.nbParam);
    EXPECT_EQ(0u, back.header.tailleData);
    return back;
}

bool Connection::Send(const Message& m) { return SendRaw(Encode(m)); }

bool Connection::SendRaw(const Bytes& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        if (sock_ == INVALID_SOCKET || peer_.stopping_) return false;
        int k = KvnSend(sock_, reinterpret_cast<const char*>(bytes.data() + sent),
                        static_cast<int>(bytes.size() - sent));
        if (k <= 0) return false;
        sent += static_cast<std::size_t>(k);
    }
    return true;
}

void Connection::Close() {
    std::lock_guard<std::mutex> lock(peer_.mutex_);
    if (sock_ != INVALID_SOCKET) KvnCloseSocket(sock_);
    sock_ = INVALID_SOCKET;
}

bool Connection::Alive() const { return !clientClosed_ && !peer_.stopping_ && sock_ != INVALID_SOCKET; }

void Connection::Delay(DWORD ms) {
    std::unique_lock<std::mutex> lock(peer_.mutex_);
    peer_.changed_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return peer_.stopping_.load(); });
}

bool Connection::ExpectSilence(DWORD ms) {
    const Clock::time_point deadline = After(ms);
    while (Alive()) {
        DWORD left = MsUntil(deadline);
        if (left == 0 || KvnWaitReadable(sock_, left) <= 0) break;
        std::uint8_t scrap[256];
        int k = KvnRecv(sock_, reinterpret_cast<char*>(scrap), sizeof scrap);
        if (k <= 0) {
            clientClosed_ = true;
            break;
        }
        ADD_FAILURE() << "socket " << index_ << ": expected silence, but " << k
                      << " bytes arrived: " << Hex(Bytes(scrap, scrap + k));
        return false;
    }
    return true;
}

bool Connection::ExpectClientClose(DWORD timeoutMs) {
    const Clock::time_point deadline = After(timeoutMs);
    while (Alive()) {
        DWORD left = MsUntil(deadline);
        if (left == 0 || KvnWaitReadable(sock_, left) < 0) break;
        std::uint8_t scrap[4096];
        if (KvnRecv(sock_, reinterpret_cast<char*>(scrap), sizeof scrap) <= 0) clientClosed_ = true;
    }
    if (!clientClosed_) {
        ADD_FAILURE() << "socket " << index_ << ": the client did not close within " << timeoutMs << " ms";
    }
    return clientClosed_;
}

bool Connection::Await(const std::string& name, DWORD timeoutMs) {
    std::unique_lock<std::mutex> lock(peer_.mutex_);
    bool signalled = peer_.changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return peer_.signals_.count(name) > 0 || peer_.stopping_.load();
    });
    if (peer_.signals_.count(name)) return true;
    ADD_FAILURE() << "socket " << index_ << ": the test did not signal \"" << name << "\""
                  << (signalled ? " before the peer stopped" : " in time");
    return false;
}

// ---- ScriptedPeer ---------------------------------------------------------------------------

ScriptedPeer::ScriptedPeer() : listener_(INVALID_SOCKET) {
    WORD granted = 0;
    socketLayer_ = KvnSocketStartup(0x0202, &granted) == 0;
    EXPECT_TRUE(socketLayer_) << "the socket layer did not start";
    listener_ = KvnTcpListen(KvnLoopbackAddress(), 0, 16);
    if (listener_ == INVALID_SOCKET) {
        ADD_FAILURE() << "the peer cannot listen on 127.0.0.1 (error " << KvnSocketError() << ")";
        return;
    }
    port_ = KvnGetLocalPort(listener_);
    acceptor_ = std::thread([this] { AcceptLoop(); });
}

ScriptedPeer::~ScriptedPeer() {
    Stop();
    if (socketLayer_) KvnSocketCleanup();
}

void ScriptedPeer::OnAccept(int index, Script script) {
    std::lock_guard<std::mutex> lock(mutex_);
    scripts_[index] = std::move(script);
}

void ScriptedPeer::OnEveryAccept(Script script) {
    std::lock_guard<std::mutex> lock(mutex_);
    everyScript_ = std::move(script);
}

void ScriptedPeer::Signal(const std::string& name) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        signals_.insert(name);
    }
    changed_.notify_all();
}

bool ScriptedPeer::WaitForScripts(DWORD timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto allDone = [this] {
        for (const auto& s : scripts_) {
            if (!finished_.count(s.first)) return false;
        }
        return running_ == 0;
    };
    if (changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), allDone)) return true;
    std::ostringstream pending;
    for (const auto& s : scripts_) {
        if (finished_.count(s.first)) continue;
        pending << ' ' << s.first
                << (s.first < static_cast<int>(connections_.size()) ? " (running)" : " (never accepted)");
    }
    ADD_FAILURE() << "the peer's scripts did not end within " << timeoutMs << " ms; pending:" << pending.str()
                  << "; running: " << running_;
    return false;
}

int ScriptedPeer::Accepted() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(connections_.size());
}

std::vector<Message> ScriptedPeer::Received(int index) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = received_.find(index);
    return it == received_.end() ? std::vector<Message>() : it->second;
}

void ScriptedPeer::Record(int index, const Message& m) {
    std::lock_guard<std::mutex> lock(mutex_);
    received_[index].push_back(m);
}

void ScriptedPeer::AcceptLoop() {
    for (;;) {
        SOCKET s = KvnAccept(listener_, INFINITE);
        if (stopping_) {
            if (s != INVALID_SOCKET) KvnCloseSocket(s);  // Stop's own wake-up call
            return;
        }
        if (s == INVALID_SOCKET) {
            ADD_FAILURE() << "the peer's accept failed (error " << KvnSocketError() << ")";
            return;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        int index = static_cast<int>(connections_.size());
        connections_.emplace_back(new Connection(*this, index, s));
        Connection& c = *connections_.back();
        auto own = scripts_.find(index);
        Script script = own != scripts_.end() ? own->second : everyScript_;
        if (script) {
            ++running_;
            c.thread_ = std::thread([this, &c, script] { RunScript(c, script); });
        }
    }
}

void ScriptedPeer::RunScript(Connection& c, Script script) {
    script(c);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        finished_.insert(c.index_);
        --running_;
    }
    changed_.notify_all();
}

void ScriptedPeer::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopped_) return;
        stopped_ = stopping_ = true;
        // Shutting a socket down wakes a script blocked reading it; the
        // descriptors are only released once every script has ended.
        for (auto& c : connections_) {
            if (c->sock_ != INVALID_SOCKET) KvnShutdown(c->sock_);
        }
    }
    changed_.notify_all();

    if (acceptor_.joinable()) {
        // The acceptor waits without a time limit: a connection of our own wakes it.
        SOCKET wake = KvnTcpSocket();
        bool woken = wake != INVALID_SOCKET && KvnConnect(wake, KvnLoopbackAddress(), port_) == 0;
        if (!woken) KvnShutdown(listener_);
        acceptor_.join();
        if (wake != INVALID_SOCKET) KvnCloseSocket(wake);
    }
    // The acceptor has ended: the list of connections no longer changes.
    for (auto& c : connections_) {
        if (c->thread_.joinable()) c->thread_.join();
        if (c->sock_ != INVALID_SOCKET) KvnCloseSocket(c->sock_);
        c->sock_ = INVALID_SOCKET;
    }
    if (listener_ != INVALID_SOCKET) KvnCloseSocket(listener_);
    listener_ = INVALID_SOCKET;
}

}  // namespace peer
