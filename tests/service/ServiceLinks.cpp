// Links to korvaned for the tests.
#include "ServiceLinks.h"

#include <gtest/gtest.h>

#include <cstring>

#include "platform/Threads.h"
#include "support/TestUtil.h"

bool ReceiveAnswer(SOCKET sock, CMsgSocket& answer, int timeoutMs) {
    const auto start = kvntest::Clock::now();
    do {
        // Each call waits up to 2 s for a header.
        answer.ReceiveMessage(sock);
        if (answer.GetFonction() != -1) return true;
    } while (kvntest::MsSince(start) < timeoutMs);
    return false;
}

ApplicationLink::ApplicationLink(unsigned short port, const wchar_t* name) : socket(port), result(-1) {
    message.Init(0, 0, socket.Get(), &comm);
    result = message.SendInitApplication(name);
    message.GetParamComm(&comm);
}

ConnexionLink::ConnexionLink(unsigned short port, int idApplication, int idConnexion, bool reinit)
    : socket(port), result(-1) {
    CParamComm comm;
    request.Init(idApplication, idConnexion, socket.Get(), &comm);
    result = reinit ? request.SendReInitConnexion() : request.SendInitConnexion();
}

int RegisterWithin(unsigned short port, int timeoutMs) {
    const auto start = kvntest::Clock::now();
    for (;;) {
        ApplicationLink app(port);
        if (app.result == 0 || kvntest::MsSince(start) >= timeoutMs) return app.result;
        KvnSleep(50);
    }
}

bool ConnexionLink::Exchange() {
    const int sent = request.SendMessageW(socket.Get(), -1, -1);
    EXPECT_EQ(1, sent) << "request " << request.GetFonction() << " not acknowledged";
    if (sent != 1) return false;
    const bool received = ReceiveAnswer(socket.Get(), answer);
    EXPECT_TRUE(received) << "no answer to request " << request.GetFonction();
    return received;
}

std::vector<unsigned char> Header(int idApplication, int fonction, int count, unsigned size) {
    CEnteteMsgSocket h;
    h.nIdApplication = idApplication;
    h.nIdConnexion = 1;
    h.nFonction = static_cast<signed char>(fonction);
    h.nNbParam = count;
    h.nTailleData = size;
    h.bUnicode = 1;
    std::vector<unsigned char> bytes(sizeof(h));
    std::memcpy(bytes.data(), &h, sizeof(h));
    return bytes;
}

namespace {

bool Built(int created) {
    EXPECT_EQ(0, created) << "request not built";
    return created == 0;
}

CParam* Typed(CMsgSocket& m, int i, int type) {
    CParam* p = nullptr;
    if (!m.GetParametre(i, &p)) {
        ADD_FAILURE() << "no value " << i << " (the message holds " << m.GetNbParametre() << ")";
        return nullptr;
    }
    const int actual = static_cast<signed char>(p->cType);
    const bool text = type == SQL_C_CHAR || type == SQL_C_WCHAR;
    if ((text && actual != SQL_C_CHAR && actual != SQL_C_WCHAR) || (!text && actual != type) || p->bNull) {
        ADD_FAILURE() << "value " << i << ": type " << actual << (p->bNull ? " NULL" : "") << ", expected "
                      << type;
        return nullptr;
    }
    return p;
}

}  // namespace

bool ConnexionLink::Execute(const wchar_t* sql) { return Built(request.CreateExec(sql)) && Exchange(); }
bool ConnexionLink::Select(const wchar_t* sql) { return Built(request.CreateExecSelect(sql)) && Exchange(); }

int LongAt(CMsgSocket& m, int i) {
    CParam* p = Typed(m, i, SQL_C_LONG);
    return p ? p->valNum.lVal : -12345;
}

std::wstring TextAt(CMsgSocket& m, int i) {
    CParam* p = Typed(m, i, SQL_C_CHAR);
    return p && p->pszValeur ? p->pszValeur : L"<none>";
}
