// The service's listener and its registry of links, applications and
// logical connections, with the limits and the access list that it enforces.
// One Session (and one thread) serves each accepted link.
//
// Life: Listen, then Serve on the main thread until Stop (from any thread,
// a signal's for one), then Shutdown, which closes every link and waits a
// bounded time for the requests under way.
#ifndef KORVANED_SERVER_H
#define KORVANED_SERVER_H

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include <korvane/CParamComm.h>

#include "Options.h"
#include "Stats.h"

class Session;

class Server {
public:
    // connectionString: what every logical connection opens.
    Server(const ServiceOptions& options, const std::string& connectionString);
    ~Server();

    // Opens the listening socket (and writes the port file); false, logged
    // with the system's reason, when it cannot.
    bool Listen();
    // Accepts links until Stop.
    void Serve();
    // Makes Serve return; callable from any thread, more than once.
    void Stop();

    struct ShutdownCounts {
        int links = 0;      // open when the shutdown began
        int finished = 0;   // links whose request under way was answered
        int abandoned = 0;  // links still busy when the bound ran out
    };
    // After Serve: closes every link at once, except those running a request,
    // which are closed as their answer goes out or when boundMs has passed.
    ShutdownCounts Shutdown(DWORD boundMs);

    const ServiceOptions& Options() const { return options_; }
    const std::string& ConnectionString() const { return connectionString_; }
    // The exchange parameters of this service's messages.
    const CParamComm& CommParams() const { return comm_; }
    ServiceStats& Stats() { return stats_; }
    // The statistics page: links and registrations now, then the counters.
    std::string StatsPage();
    // "N applications, M connections, K links".
    std::string CountsText();

    // Registers the application of the link `session` (a serial that tells
    // links apart), keeping wantedId when it is free or already this
    // application's (a re-registration after the link was lost). The
    // application id, or KVN_ERROR_MAX_CLIENT_ATTEINT when the limit is reached.
    int RegisterApplication(int wantedId, unsigned long session);
    // Forgets the application unless another link has taken it over since.
    void UnregisterApplication(int id, unsigned long session);
    bool IsApplicationRegistered(int id);

    // One logical connection more: false beyond the limit.
    bool TakeConnexion();
    void ReleaseConnexion();

    // A session's request under way: BeginRequest is false once the service
    // stops (the request is then abandoned); after EndRequest the session
    // ends when the service stops.
    bool BeginRequest(Session* session);
    bool EndRequest(Session* session);
    // Called by each session's thread as it ends: forgets and deletes it.
    void SessionEnded(Session* session);

private:
    bool Accept(SOCKET s);

    ServiceOptions options_;
    std::string connectionString_;
    CParamComm comm_;
    ServiceStats stats_;
    SOCKET listening_;
    std::atomic<bool> stopping_;
    const DWORD startTick_;

    std::mutex lock_;  // guards the members below, and the closing of listening_
    std::map<int, unsigned long> applications_;  // id -> serial of its main link
    int nextId_;
    int connexions_;
    // The sessions; one leaves the set before it is deleted, so a member is
    // alive while the lock is held.
    std::set<Session*> sessions_;
    int live_;                      // sessions not deleted yet
    int finished_;  // requests that were under way at the stop and got their answer
    std::condition_variable sessionEnded_;

    unsigned long nextSerial_;  // used by Serve's thread only
};

#endif
