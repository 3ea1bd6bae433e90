// A link's receive loop and its link requests.
#include "Session.h"

#include <chrono>

#include <korvane/KvnDefs.h>

#include "Server.h"
#include "ServiceLog.h"
#include "Values.h"
#include "platform/Kernel.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace {

// A link that has not registered by then is dropped: it holds a thread.
constexpr DWORD kRegistrationWaitMs = 30000;
// Messages refused or cut short in a row before the link is dropped: the
// peer does not speak the protocol, or its stream is out of step.
constexpr int kMaxBadMessages = 8;
// How often the loop looks at the registration wait while the link is quiet.
constexpr DWORD kIdleCheckMs = 1000;

}  // namespace

Session::Session(Server& server, SOCKET sock, unsigned long serial)
    : server_(server), sock_(sock), serial_(serial), role_(Role::Unknown), idApplication_(0),
      idConnexion_(0), answeredError_(false) {}

Session::~Session() {
    if (sock_ != INVALID_SOCKET) KvnCloseSocket(sock_);
}

void Session::Run(void* p) {
    Session* session = static_cast<Session*>(p);
    session->Serve();
    session->server_.SessionEnded(session);
}

void Session::Interrupt() {
    if (sock_ != INVALID_SOCKET) KvnShutdown(sock_);
}

void Session::Serve() {
    WSAEVENT readable = KvnCreateSocketEvent();
    if (!readable || KvnSocketEventSelect(sock_, readable, FD_READ | FD_CLOSE) != 0) {
        ServiceLog(0, "link %lu: cannot watch its socket", serial_);
        if (readable) KvnCloseSocketEvent(readable);
        return;
    }
    CParamComm comm = server_.CommParams();
    CMsgSocket request;
    request.SetParamComm(&comm);
    const DWORD start = KvnGetTickCount();
    int badMessages = 0;
    for (;;) {
        // While the next block of a select is being made ready, only a look:
        // a request that arrives is served before the next step.
        const DWORD w = KvnWaitForSingleObject(readable, preparing_ ? 0 : kIdleCheckMs);
        if (w == WAIT_TIMEOUT && preparing_) {
            PrepareNextBlock();
            continue;
        }
        if (w == WAIT_TIMEOUT) {
            if (role_ == Role::Unknown && KvnGetTickCount() - start >= kRegistrationWaitMs) {
                ServiceLog(1, "link %lu: no registration, dropped", serial_);
                break;
            }
            continue;
        }
        if (w != WAIT_OBJECT_0) break;
        long events = 0;
        int closeError = 0;
        if (KvnEnumNetworkEvents(sock_, readable, &events, &closeError) != 0 || (events & FD_CLOSE)) break;
        if (!(events & FD_READ)) continue;

        request.ReceiveMessage(sock_);
        if (request.GetFonction() == -1) {
            // Refused header, short read or stray acknowledgement.
            if (++badMessages >= kMaxBadMessages) {
                ServiceLog(1, "link %lu: %d unreadable messages in a row, dropped", serial_, badMessages);
                break;
            }
            continue;
        }
        badMessages = 0;
        // A request that arrives once the service stops is not begun; one
        // under way is answered, and then the link ends.
        if (!server_.BeginRequest(this)) break;
        const bool goOn = Handle(request);
        if (!server_.EndRequest(this) || !goOn) break;
        request.ClearMessage();
    }
    KvnCloseSocketEvent(readable);
    Release();
}

bool Session::Handle(CMsgSocket& request) {
    const int fonction = request.GetFonction();
    if (ServiceLogLevel() >= 3) {
        ServiceLog(3, "link %lu: message %d app %d cnx %d, %d values", serial_, fonction,
                   request.GetIdApplication(), request.GetIdConnexion(), request.GetNbParametre());
    }
    switch (fonction) {
    case KVN_INIT_APPLICATION:
        return OnRegisterApplication(request, false);
    case KVN_REINIT_APPLICATION:
        return OnRegisterApplication(request, true);
    case KVN_INIT_CONNEXION:
        return OnOpenConnexion(request, false);
    case KVN_REINIT_CONNEXION:
        return OnOpenConnexion(request, true);
    case KVN_CLOSE_APPLICATION:
        OnCloseApplication();
        return true;
    case KVN_HEART_BEAT:
        return true;  // a sign of life; its acknowledgement is the answer
    default:
        break;
    }
    if (fonction >= KVN_EXECUTE && fonction <= KVN_REQUETE_METABASE) return CountedDatabaseRequest(request);
    // Codes with nothing to answer (the acknowledgement has gone already).
    return true;
}

bool Session::OnRegisterApplication(CMsgSocket& request, bool reinit) {
    const int fonction = request.GetFonction();
    if (role_ == Role::Connexion) {
        ServiceLog(1, "link %lu: registration on a connection's link refused", serial_);
        CMsgSocket answer;
        ErrorAnswer(answer, fonction, KVN_ERROR_INIT_COMM);
        return Send(answer);
    }
    if (role_ == Role::Application) server_.UnregisterApplication(idApplication_, serial_);
    std::string computer, name;
    ReadText(request, 0, &computer);
    ReadText(request, 1, &name);

    const int id = server_.RegisterApplication(reinit ? request.GetIdApplication() : 0, serial_);
    CMsgSocket answer;
    CParamComm comm = server_.CommParams();
    answer.SetParamComm(&comm);
    if (id < 0) {
        ServiceLog(1, "link %lu: application '%s' of '%s' refused: %d applications already",
                   serial_, name.c_str(), computer.c_str(), server_.Options().maxClients);
        role_ = Role::Closed;
        answer.SetEntete(0, fonction, 0);
        AddLong(answer, id);
        return Send(answer);
    }
    role_ = Role::Application;
    idApplication_ = id;
    ServiceLog(1, "link %lu: application %d '%s' of '%s' %s", serial_, id, name.c_str(), computer.c_str(),
               reinit ? "registered again" : "registered");

    const ServiceOptions& o = server_.Options();
    answer.SetEntete(id, KVN_INIT_OK, 0);
    AddLong(answer, o.hbPeriodMs);
    AddLong(answer, o.hbCount);
    AddLong(answer, o.hbPort);
    AddLong(answer, o.hbMode == HeartbeatMode::Multicast ? 1 : 0);
    AddText(answer, HeartbeatAddress(o));  // never empty, so never dropped on receipt
    AddLong(answer, 0);                    // reserved
    AddLong(answer, o.retryCount);
    AddLong(answer, o.connectTimeoutMs);
    AddLong(answer, o.ackTimeoutMs);
    AddLong(answer, o.dbType);
    return Send(answer);
}

bool Session::OnOpenConnexion(CMsgSocket& request, bool reinit) {
    const int fonction = request.GetFonction();
    const int app = request.GetIdApplication();
    const int cnx = request.GetIdConnexion();
    CMsgSocket answer;
    CParamComm comm = server_.CommParams();
    answer.SetParamComm(&comm);
    int refusal = 0;
    if (role_ != Role::Unknown) refusal = KVN_ERROR_INIT_COMM;
    else if (!server_.IsApplicationRegistered(app)) refusal = KVN_ERROR_INIT_COMM;
    else if (!server_.TakeConnexion()) refusal = KVN_ERROR_MAX_CLIENT_ATTEINT;
    if (refusal != 0) {
        ServiceLog(1, "link %lu: connection %d of application %d refused (%d)", serial_, cnx, app, refusal);
        answer.SetEntete(app, fonction, cnx);
        AddLong(answer, refusal);
        // The link is closed after the refusal: a client that takes the answer
        // for an acceptance (a re-attachment only looks for a negative result)
        // sees its socket close and tries again, instead of staying attached
        // to a link that refuses all its requests.
        Send(answer);
        return false;
    }
    role_ = Role::Connexion;
    idApplication_ = app;
    idConnexion_ = cnx;
    db_.reset(new OdbcConnexion);
    ServiceLog(1, "link %lu: connection %d of application %d %s", serial_, cnx, app,
               reinit ? "attached again" : "opened");
    answer.SetEntete(app, KVN_INIT_OK, cnx);
    if (!Send(answer)) return false;
    // Connected after the answer: a slow database must not make the client's
    // wait for it run out. A failure is reported by the first request.
    EnsureDatabase();
    return true;
}

bool Session::CountedDatabaseRequest(CMsgSocket& request) {
    const auto start = std::chrono::steady_clock::now();
    answeredError_ = false;
    const bool goOn = OnDatabaseRequest(request);
    const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
    server_.Stats().Request(request.GetFonction(), elapsed.count(), answeredError_);
    return goOn;
}

void Session::OnCloseApplication() {
    if (role_ != Role::Application) return;
    ServiceLog(1, "link %lu: application %d closed", serial_, idApplication_);
    server_.UnregisterApplication(idApplication_, serial_);
    role_ = Role::Closed;
}

void Session::Release() {
    if (role_ == Role::Application) {
        ServiceLog(1, "link %lu: application %d link closed", serial_, idApplication_);
        server_.UnregisterApplication(idApplication_, serial_);
    } else if (role_ == Role::Connexion) {
        ServiceLog(1, "link %lu: connection %d of application %d closed", serial_, idConnexion_,
                   idApplication_);
        db_.reset();
        server_.ReleaseConnexion();
    }
    role_ = Role::Closed;
}

void Session::StartAnswer(CMsgSocket& answer, int fonction) {
    CParamComm comm = server_.CommParams();
    answer.SetParamComm(&comm);
    answer.SetEntete(idApplication_, fonction, idConnexion_);
}

void Session::ErrorAnswer(CMsgSocket& answer, int fonction, int code) {
    answeredError_ = true;
    StartAnswer(answer, fonction);
    AddLong(answer, KVN_ERROR_UNKNOWN);
    AddLong(answer, code);
}

bool Session::Send(CMsgSocket& answer) {
    const int r = answer.SendMessageW(sock_, -1, -1);
    if (r != 1) {
        ServiceLog(1, "link %lu: answer %d not acknowledged (%d), link dropped", serial_, answer.GetFonction(), r);
        return false;
    }
    return true;
}
