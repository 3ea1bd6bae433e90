// The registration of an application with a test service.
#include "support/ServiceSession.h"

#include <korvane/KvnDefs.h>

peer::Message InitApplicationAnswer(const SessionAnswer& a, int fonction) {
    return peer::Msg(fonction, a.idApplication, 0,
                     {peer::Long(a.periodeHB), peer::Long(a.nbPeriodeHB), peer::Long(a.portHB),
                      peer::Long(a.multicastHB), peer::Text(a.adresseHB.c_str()),
                      peer::Long(a.param3), peer::Long(a.nbRetrySend),
                      peer::Long(a.timeOutConnect), peer::Long(a.timeOutAck),
                      peer::Long(a.dbType)});
}

peer::Message RegisterApplication(peer::Connection& c, const SessionAnswer& answer, bool reinit) {
    peer::Message request = c.Expect(reinit ? KVN_REINIT_APPLICATION : KVN_INIT_APPLICATION);
    if (!request.complete) return request;
    c.Ack(request);
    c.Answer(InitApplicationAnswer(answer));
    return request;
}

void AcknowledgeUntilClose(peer::Connection& c) {
    while (c.Alive()) {
        peer::Message m = c.Read();
        if (m.complete) c.Ack(m);
    }
}

peer::Script MainLink(const SessionAnswer& answer, peer::Script then) {
    return [answer, then](peer::Connection& c) {
        RegisterApplication(c, answer);
        if (then) then(c);
        else AcknowledgeUntilClose(c);
    };
}

peer::Message AcceptConnexion(peer::Connection& c, int fonction, bool reinit) {
    peer::Message request = c.Expect(reinit ? KVN_REINIT_CONNEXION : KVN_INIT_CONNEXION);
    if (!request.complete) return request;
    c.Ack(request);
    c.Answer(peer::Msg(fonction, request.IdApplication(), request.IdConnexion()));
    return request;
}

peer::Script ConnexionLink(peer::Script then) {
    return [then](peer::Connection& c) {
        AcceptConnexion(c);
        if (then) then(c);
        else AcknowledgeUntilClose(c);
    };
}
