// The service's listener and its registry of applications and logical
// connections, with the limits that it enforces. One Session (and one
// thread) serves each accepted link.
#ifndef KORVANED_SERVER_H
#define KORVANED_SERVER_H

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include <korvane/CParamComm.h>

#include "Options.h"

class Server {
public:
    // connectionString: what every logical connection opens.
    Server(const ServiceOptions& options, const std::string& connectionString);

    // Listens and serves until the process ends. Returns non-zero when the
    // port cannot be listened on.
    int Run();

    const ServiceOptions& Options() const { return options_; }
    const std::string& ConnectionString() const { return connectionString_; }
    // The exchange parameters of this service's messages.
    const CParamComm& CommParams() const { return comm_; }

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

    // Called by each session's thread as it ends.
    void SessionEnded();

private:
    ServiceOptions options_;
    std::string connectionString_;
    CParamComm comm_;

    std::mutex lock_;  // guards the members below
    std::map<int, unsigned long> applications_;  // id -> serial of its main link
    int nextId_;
    int connexions_;

    std::atomic<int> sessions_;
    unsigned long nextSerial_;  // used by Run's thread only
};

#endif
