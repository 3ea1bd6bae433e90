// The session of the database operation tests.
#include "support/OperationSession.h"

#include <korvane/SockInit.h>

#include <atomic>
#include <thread>

#include "diag/Log.h"
#include "platform/DebugOutput.h"
#include "support/ServiceSession.h"

void OperationSession::SetUp() {
    SockInitWinSock();
    KvnSetDebugOutputHook(&kvntest::CapturedTexts::Hook, &debugger);
    KvnSetTraceFileHook(&kvntest::CapturedTexts::Hook, &log);
}

void OperationSession::TearDown() {
    Finish();
    service.Stop();
    KvnSetDebugOutputHook(nullptr, nullptr);
    KvnSetTraceFileHook(nullptr, nullptr);
    KvnResetLogForTests();
    SockCloseWinSock();
}

void OperationSession::Open(peer::Script script) { Open(SessionAnswer(), script); }

void OperationSession::Finish() {
    client.Free();
    service.WaitForScripts();
}

void OperationSession::Open(const SessionAnswer& answer, peer::Script script) {
    service.OnAccept(0, MainLink(answer));
    service.OnAccept(1, ConnexionLink([script](peer::Connection& c) {
        if (script) script(c);
        AcknowledgeUntilClose(c);
    }));
    int dbType = 0;
    ASSERT_EQ(KVN_NO_ERROR,
              client.Init(L"127.0.0.1", service.Port(), 0, L"Operations", dbType, 0, nullptr, nullptr));
    hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);
}

void OperationSession::LogUpTo(int level) { g_logLevel.store(level); }

std::vector<peer::Message> OperationSession::Requests() {
    std::vector<peer::Message> all = service.Received(1);
    // The first one is the connection's registration.
    if (!all.empty()) all.erase(all.begin());
    return all;
}

void OperationSession::ExpectConnexionFree() {
    CConnexionKorvane* cnx = client.Connexion(hCnx);
    ASSERT_NE(nullptr, cnx);
    EXPECT_EQ(nullptr, cnx->m_pMsgAEnvoyer);
    EXPECT_TRUE(FreeElsewhere(cnx->mutexUseCnx)) << "the request lock is still held";
}

bool FreeElsewhere(CMutex& lock) {
    std::atomic<bool> locked{false};
    std::thread other([&] {
        locked = lock.Lock(0) != FALSE;
        if (locked) lock.Unlock();
    });
    other.join();
    return locked;
}

peer::Message Serve(peer::Connection& c, int fonction, std::vector<peer::Value> values) {
    peer::Message request = c.Expect(fonction);
    if (!request.complete) return request;
    c.Ack(request);
    c.Answer(peer::Msg(fonction, request.IdApplication(), request.IdConnexion(), std::move(values)));
    return request;
}
