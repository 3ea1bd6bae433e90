// The client side of the tests of korvaned: the library's own message classes
// on links of the library's own transport, with helpers for the registration,
// for one request and its answer, and for reading the answer's values.
#ifndef KVN_TESTS_SERVICE_SERVICELINKS_H
#define KVN_TESTS_SERVICE_SERVICELINKS_H

#include <memory>
#include <string>
#include <vector>

#include <korvane/CMsgSocketClient.h>

#include "support/ClientSocket.h"

// Receives the next message on sock within timeoutMs; false when none came.
bool ReceiveAnswer(SOCKET sock, CMsgSocket& answer, int timeoutMs = 10000);

// An application's main link, registered with KVN_INIT_APPLICATION.
struct ApplicationLink {
    explicit ApplicationLink(unsigned short port, const wchar_t* name = L"service-tests");
    ClientSocket socket;
    CMsgSocketClient message;
    int result;       // of SendInitApplication
    CParamComm comm;  // as the service answered
    int IdApplication() { return message.GetIdApplication(); }
};

// Registers a new application, again and again for up to timeoutMs while
// the service refuses it (it frees places when it sees a link end): the last
// result of SendInitApplication.
int RegisterWithin(unsigned short port, int timeoutMs);

// A logical connection's link, opened with KVN_INIT_CONNEXION.
struct ConnexionLink {
    // reinit: KVN_REINIT_CONNEXION, as after a lost link.
    ConnexionLink(unsigned short port, int idApplication, int idConnexion, bool reinit = false);
    ClientSocket socket;
    CMsgSocketClient request;
    CMsgSocket answer;
    int result;  // of SendInitConnexion

    // Sends the request built in `request` and receives its answer into
    // `answer`; false (and a test failure) when either did not happen.
    bool Exchange();
    // Build, then exchange.
    bool Execute(const wchar_t* sql);
    bool Select(const wchar_t* sql);
};

// An application registered on its main link, with its connection 1 open.
struct OpenConnexion {
    explicit OpenConnexion(unsigned short port) : app(port), cnx(port, app.IdApplication(), 1) {}
    ApplicationLink app;
    ConnexionLink cnx;
};

// The bytes of a message header of connection 1, Unicode.
std::vector<unsigned char> Header(int idApplication, int fonction, int count, unsigned size);

// Values of a message: the test fails when the value is missing or of another type.
int LongAt(CMsgSocket& m, int i);
std::wstring TextAt(CMsgSocket& m, int i);

#endif
