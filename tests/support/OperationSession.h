// A client with an open session and one logical connection to the scripted
// test service, for the tests of the database operations.
#ifndef KVN_TESTS_SUPPORT_OPERATIONSESSION_H
#define KVN_TESTS_SUPPORT_OPERATIONSESSION_H

#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>

#include "client/CConnexionKorvane.h"
#include "peer/ScriptedPeer.h"
#include "support/ServiceSession.h"
#include "support/TestUtil.h"

// The client, with the connection objects within reach of the tests.
class OperationClient : public CKorvaneClient {
public:
    CConnexionKorvane* Connexion(int hCnx) { return m_GetConnexionByIdList(hCnx); }
    void SetAllConnected(BOOL on) { m_bAllConnected = on; }
};

class OperationSession : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Opens the session and one connection (hCnx). The connection's link
    // plays `script` once the connection is registered, then acknowledges
    // whatever comes until the client closes it.
    void Open(peer::Script script);
    // The same with the communication parameters of `answer`.
    void Open(const SessionAnswer& answer, peer::Script script);
    // Ends the session and waits for the service's scripts.
    void Finish();
    // Lines of log level `level` and below reach `log` from now on.
    void LogUpTo(int level);

    // Every request the connection's link read after its registration.
    std::vector<peer::Message> Requests();
    // An operation always ends with the request lock free and its request
    // withdrawn.
    void ExpectConnexionFree();

    peer::ScriptedPeer service;
    OperationClient client;
    int hCnx = 0;
    kvntest::CapturedTexts debugger;
    kvntest::CapturedTexts log;
};

// Whether another thread can take the lock at once.
bool FreeElsewhere(CMutex& lock);

// Reads a request of function `fonction`, acknowledges it and answers with
// `values` under the same function code and ids. Returns the request.
peer::Message Serve(peer::Connection& c, int fonction, std::vector<peer::Value> values);

#endif
