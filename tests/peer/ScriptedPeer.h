// A scripted stand-in for the Korvane service, for the tests of the client.
// It listens on 127.0.0.1 (system-chosen port) and plays a script on every
// accepted socket, each on a thread of its own, so that the main link and the
// connections' links run at once. Scripts act through their Connection and
// assert with gtest (which works from any thread); what they read is also kept
// per socket for the test. The peer speaks only the bytes of the wire
// (WireCodec.h), never the library's message classes. Stop (and the
// destructor) ends everything in bounded time.
#ifndef KVN_TESTS_PEER_SCRIPTEDPEER_H
#define KVN_TESTS_PEER_SCRIPTEDPEER_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <korvane/platform/KvnTypes.h>

#include "peer/WireCodec.h"

namespace peer {

// How long a script's reads wait by default, in ms: long enough for a slow
// (sanitized, emulated) client, short enough for a stuck test to fail soon.
const DWORD kWaitMs = 5000;

class ScriptedPeer;

// One accepted socket, as its script sees it. Used by its script's thread only.
class Connection {
public:
    // One message: the header, then the body it announces, within timeoutMs in
    // all. `complete` is false when it did not all arrive (the bytes that did
    // are in `raw`); `error` tells why a complete body could not be decoded.
    Message Read(DWORD timeoutMs = kWaitMs);
    // Read, failing the test unless a whole, decodable message with this
    // function code arrived.
    Message Expect(int fonction, DWORD timeoutMs = kWaitMs);
    // Expect, and the bytes must be exactly the peer's own encoding of `expected`.
    Message ExpectMessage(const Message& expected, DWORD timeoutMs = kWaitMs);
    // Up to `count` raw bytes, fewer when the time ran out or the client closed.
    Bytes ReadRaw(std::size_t count, DWORD timeoutMs = kWaitMs);

    void Ack(const Message& m);     // bare header, function 1, ids copied
    void Refuse(const Message& m);  // bare header, function 0, ids copied

    // Sends the message and reads the 16 bytes that acknowledge it, failing the
    // test unless they are an acceptance (function 1) carrying the message's ids.
    // Returns the header that came back (`complete` false when none did).
    Message Answer(const Message& answer, DWORD ackTimeoutMs = kWaitMs);
    bool Send(const Message& m);
    bool SendRaw(const Bytes& bytes);  // hostile or partial input

    void Close();
    // False once the client closed its end, this side closed, or the peer is stopping.
    bool Alive() const;
    // Pauses; a stopping peer cuts the pause short.
    void Delay(DWORD ms);
    // Fails the test when any byte arrives within ms. A close is not a byte.
    bool ExpectSilence(DWORD ms);
    // Waits for the client to close its end, dropping whatever arrives first;
    // fails the test when it does not within timeoutMs.
    bool ExpectClientClose(DWORD timeoutMs = kWaitMs);
    // Waits until the test calls ScriptedPeer::Signal(name); fails the test
    // when it does not within timeoutMs.
    bool Await(const std::string& name, DWORD timeoutMs = kWaitMs);

private:
    friend class ScriptedPeer;
    Connection(ScriptedPeer& peer, int index, SOCKET sock)
        : peer_(peer), index_(index), sock_(sock) {}

    // Stops early when the client closes, the socket fails or the peer stops.
    std::size_t ReadUntil(std::uint8_t* buffer, std::size_t n, Clock::time_point deadline);

    ScriptedPeer& peer_;
    const int index_;
    SOCKET sock_;  // INVALID_SOCKET once closed; changed under the peer's lock
    bool clientClosed_ = false;
    std::thread thread_;
};

using Script = std::function<void(Connection&)>;

class ScriptedPeer {
public:
    ScriptedPeer();
    ~ScriptedPeer();
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    unsigned short Port() const { return port_; }

    // The script of the index-th accepted socket (0 for the first), or of every
    // socket that has no script of its own. Give them before the client
    // connects. A socket without any script is held open, silent, until the
    // client closes it or the peer stops.
    void OnAccept(int index, Script script);
    void OnEveryAccept(Script script);

    // Lets a script waiting in Connection::Await(name) go on.
    void Signal(const std::string& name);

    // Waits until every OnAccept script has ended and none other runs; fails
    // the test (naming the pending ones) after timeoutMs.
    bool WaitForScripts(DWORD timeoutMs = 2 * kWaitMs);

    int Accepted() const;
    // Every whole message read on the index-th accepted socket, in order.
    std::vector<Message> Received(int index) const;

    // Closes the listener, wakes and joins every script, closes every socket. Idempotent.
    void Stop();

private:
    friend class Connection;
    void AcceptLoop();
    void RunScript(Connection& c, Script script);
    void Record(int index, const Message& m);

    mutable std::mutex mutex_;
    std::condition_variable changed_;  // a script ended, a signal, stopping
    std::atomic<bool> stopping_{false};
    bool stopped_ = false;
    bool socketLayer_ = false;
    SOCKET listener_;
    unsigned short port_ = 0;
    std::thread acceptor_;

    std::map<int, Script> scripts_;
    Script everyScript_;
    std::vector<std::unique_ptr<Connection>> connections_;
    std::set<int> finished_;  // indexes whose script has ended
    int running_ = 0;
    std::set<std::string> signals_;
    std::map<int, std::vector<Message>> received_;
};

}  // namespace peer

#endif
