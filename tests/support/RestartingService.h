// A test service that lives through restarts: every accepted socket learns
// from its first message what link it is (main link, logical connection) and
// is served until the client closes it or the service restarts. It registers
// applications and connections, answers every KVN_EXECUTE with success, can
// refuse re-registrations and push a KVN_HEART_BEAT on the main link. It never
// fails a test when a link breaks: breaking links is what the tests do to it.
#ifndef KVN_TESTS_SUPPORT_RESTARTINGSERVICE_H
#define KVN_TESTS_SUPPORT_RESTARTINGSERVICE_H

#include <atomic>
#include <mutex>
#include <vector>

#include "peer/ScriptedPeer.h"
#include "support/ServiceSession.h"

// One registration read by the service.
struct Registration {
    int fonction = 0;      // KVN_INIT_APPLICATION, KVN_REINIT_APPLICATION, ...
    int idApplication = 0; // in the request's header
    int idConnexion = 0;
    bool accepted = false; // accepted, and the client acknowledged the answer
    peer::Clock::time_point begin{};  // the request read
    peer::Clock::time_point end{};    // the answer acknowledged (or refused)
};

class RestartingService {
public:
    explicit RestartingService(const SessionAnswer& answer = SessionAnswer());
    ~RestartingService();

    unsigned short Port() const { return peer_.Port(); }

    // The next n KVN_REINIT_APPLICATION are refused (-54).
    void RefuseReInit(int n) { refusals_ = n; }
    // The application id given by every KVN_INIT_APPLICATION after the first.
    void SetIdForNextInit(int id) { idNextInit_ = id; }
    // Closes every link at once, as a service that stops and starts again;
    // the links opened afterwards are served as usual.
    void Restart() { ++generation_; }
    // Each main link open now sends one KVN_HEART_BEAT message.
    void HeartBeatOnMainLink() { ++heartBeats_; }

    // Registrations of this function code.
    std::vector<Registration> Registrations(int fonction) const;
    // Heartbeat messages the client acknowledged on the main link.
    int HeartBeatsAcknowledged() const { return heartBeatsAcked_; }

    // Closes everything, the listener included.
    void Stop() { peer_.Stop(); }

private:
    void Serve(peer::Connection& c);
    void Record(const Registration& r);

    SessionAnswer answer_;
    peer::ScriptedPeer peer_;
    std::atomic<int> refusals_{0};
    std::atomic<int> idNextInit_;
    std::atomic<int> inits_{0};
    std::atomic<int> generation_{0};
    std::atomic<int> heartBeats_{0};
    std::atomic<int> heartBeatsAcked_{0};
    mutable std::mutex mutex_;
    std::vector<Registration> registrations_;
};

#endif
