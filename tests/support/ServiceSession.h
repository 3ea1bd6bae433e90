// A test service that lets a client open its application session: it reads
// KVN_INIT_APPLICATION, acknowledges it and answers with the ten
// communication parameters, then goes on with the test's own script.
#ifndef KVN_TESTS_SUPPORT_SERVICESESSION_H
#define KVN_TESTS_SUPPORT_SERVICESESSION_H

#include <string>

#include <korvane/KvnDefs.h>

#include "peer/ScriptedPeer.h"

// What the service answers to a registration. The defaults are those of a
// quiet service: the client's own default time-outs, a heartbeat that tests
// which do not listen for it never miss.
struct SessionAnswer {
    int idApplication = 7;     // in the answer's header
    int periodeHB = 4000;      // parameter 0
    int nbPeriodeHB = 3;       // 1
    int portHB = 0;            // 2
    int multicastHB = 0;       // 3
    std::wstring adresseHB = L"239.255.0.1";  // 4, the only text
    int param3 = 0;            // 5
    int nbRetrySend = 2;       // 6
    int timeOutConnect = 3000; // 7
    int timeOutAck = 1000;     // 8
    int dbType = 1;            // 9
};

// The answer to KVN_INIT_APPLICATION or KVN_REINIT_APPLICATION: function
// `fonction` (0 accepts), the application id in the header, the ten values.
peer::Message InitApplicationAnswer(const SessionAnswer& answer, int fonction = 0);

// Reads the registration (INIT or, with reinit, REINIT_APPLICATION),
// acknowledges it and answers it. The registration read is returned.
peer::Message RegisterApplication(peer::Connection& c, const SessionAnswer& answer,
                                  bool reinit = false);

// Acknowledges every message the client sends until it closes the link (or
// the peer stops): a service with nothing to say.
void AcknowledgeUntilClose(peer::Connection& c);

// The main link of a session: RegisterApplication, then `then`, or
// AcknowledgeUntilClose when there is no `then`.
peer::Script MainLink(const SessionAnswer& answer, peer::Script then = nullptr);

// Reads KVN_INIT_CONNEXION (or, with reinit, KVN_REINIT_CONNEXION),
// acknowledges it and answers with function `fonction` (0 accepts) and the
// request's ids, no parameter. The request read is returned.
peer::Message AcceptConnexion(peer::Connection& c, int fonction = KVN_INIT_OK,
                              bool reinit = false);

// A logical connection's link: AcceptConnexion, then `then`, or
// AcknowledgeUntilClose when there is no `then`.
peer::Script ConnexionLink(peer::Script then = nullptr);

#endif
