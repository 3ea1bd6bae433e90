// The test service that lives through restarts.
#include "support/RestartingService.h"

#include <korvane/KvnDefs.h>

namespace {

// How often a link waiting for the client looks whether the service
// restarted or has a heartbeat to push.
const DWORD kPollMs = 50;
// The client's messages here are registrations and short requests.
const std::size_t kMaxMessage = 1 << 20;

// Sends m and reads the 16 bytes that acknowledge it: true when they are an
// acceptance. Nothing is asserted: the link may be broken on purpose.
bool SendAcknowledged(peer::Connection& c, const peer::Message& m) {
    if (!c.Send(m)) return false;
    peer::Bytes ack = c.ReadRaw(peer::kHeaderSize);
    if (ack.size() != peer::kHeaderSize) return false;
    return peer::DecodeHeader(ack.data()).fonction == KVN_ACK;
}

// A short read may end between the header and the body of a message (its
// time ran out while the rest was already there): the rest is read with the
// usual patience. An incomplete message when the client is gone or stalled.
peer::Message Complete(peer::Connection& c, const peer::Message& partial) {
    peer::Bytes bytes = partial.raw;
    if (bytes.size() < peer::kHeaderSize) {
        peer::Bytes more = c.ReadRaw(peer::kHeaderSize - bytes.size());
        bytes.insert(bytes.end(), more.begin(), more.end());
        if (bytes.size() < peer::kHeaderSize) return peer::Message();
    }
    const std::size_t total = peer::kHeaderSize + peer::DecodeHeader(bytes.data()).tailleData;
    if (total > kMaxMessage) return peer::Message();
    if (bytes.size() < total) {
        peer::Bytes more = c.ReadRaw(total - bytes.size());
        bytes.insert(bytes.end(), more.begin(), more.end());
    }
    return peer::Decode(bytes);
}

}  // namespace

RestartingService::RestartingService(const SessionAnswer& answer)
    : answer_(answer), idNextInit_(answer.idApplication) {
    peer_.OnEveryAccept([this](peer::Connection& c) { Serve(c); });
}

RestartingService::~RestartingService() { peer_.Stop(); }

void RestartingService::Record(const Registration& r) {
    std::lock_guard<std::mutex> guard(mutex_);
    registrations_.push_back(r);
}

std::vector<Registration> RestartingService::Registrations(int fonction) const {
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<Registration> found;
    for (const Registration& r : registrations_)
        if (r.fonction == fonction) found.push_back(r);
    return found;
}

void RestartingService::Serve(peer::Connection& c) {
    const int generation = generation_;
    peer::Message first = c.Read();
    if (!first.complete) return;

    Registration reg;
    reg.fonction = first.Fonction();
    reg.idApplication = first.IdApplication();
    reg.idConnexion = first.IdConnexion();
    reg.begin = first.at;
    c.Ack(first);

    bool mainLink = false;
    switch (first.Fonction()) {
    case KVN_INIT_APPLICATION: {
        SessionAnswer a = answer_;
        if (inits_++ > 0) a.idApplication = idNextInit_;
        reg.accepted = SendAcknowledged(c, InitApplicationAnswer(a));
        mainLink = true;
        break;
    }
    case KVN_REINIT_APPLICATION: {
        if (refusals_.fetch_sub(1) > 0) {
            SendAcknowledged(c, peer::Msg(KVN_ERROR_MAX_CLIENT_ATTEINT, first.IdApplication(), 0,
                                          {peer::Long(KVN_ERROR_MAX_CLIENT_ATTEINT)}));
            reg.end = peer::Clock::now();
            Record(reg);
            c.ExpectClientClose();
            return;
        }
        refusals_ = 0;
        SessionAnswer a = answer_;
        a.idApplication = first.IdApplication();
        reg.accepted = SendAcknowledged(c, InitApplicationAnswer(a));
        mainLink = true;
        break;
    }
    case KVN_INIT_CONNEXION:
    case KVN_REINIT_CONNEXION:
        reg.accepted = SendAcknowledged(
            c, peer::Msg(KVN_INIT_OK, first.IdApplication(), first.IdConnexion()));
        break;
    default:
        break;
    }
    reg.end = peer::Clock::now();
    Record(reg);

    int heartBeatsSent = heartBeats_;
    while (c.Alive()) {
        if (generation_ != generation) {
            c.Close();
            return;
        }
        if (mainLink && heartBeats_ != heartBeatsSent) {
            ++heartBeatsSent;
            if (SendAcknowledged(c, peer::Msg(KVN_HEART_BEAT, reg.idApplication, 0))) ++heartBeatsAcked_;
        }
        peer::Message m = c.Read(kPollMs);
        if (!m.complete && !m.raw.empty()) m = Complete(c, m);
        if (!m.complete) {
            // Part of a message and then nothing: the link is no use any more.
            if (!m.raw.empty()) c.Close();
            continue;
        }
        c.Ack(m);
        if (m.Fonction() == KVN_EXECUTE) {
            SendAcknowledged(c, peer::Msg(KVN_EXECUTE, m.IdApplication(), m.IdConnexion(),
                                          {peer::Long(0), peer::Long(1)}));
        }
    }
}
