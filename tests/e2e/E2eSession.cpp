// Starting korvaned and a client session on it for the end-to-end tests.
#include "E2eSession.h"

#include <cstring>
#include <cwchar>

#include <korvane/SockInit.h>

#include "platform/Uuid.h"

namespace e2e {

std::string Narrow(const wchar_t* text) {
    std::string out;
    for (; text != nullptr && *text != 0; ++text) out += (*text > 0 && *text < 128) ? static_cast<char>(*text) : '?';
    return out;
}

void E2eTest::SetUp() { ASSERT_EQ(1, SockInitWinSock()); }

void E2eTest::TearDown() {
    client.Free();
    service.reset();
    SockCloseWinSock();
}

void E2eTest::Start(const std::vector<std::string>& arguments) {
    service = std::make_unique<RunningService>(arguments);
    ASSERT_NE(0, service->Port());
    ASSERT_EQ(KVN_NO_ERROR,
              client.Init(L"127.0.0.1", service->Port(), 0, L"e2e", dbType, 0, nullptr, nullptr))
        << Narrow(client.GetLastError().GetString());
    hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0) << Narrow(client.GetLastError().GetString());
}

int E2eTest::MustExecute(const wchar_t* sql) {
    int resultat = -12345;
    EXPECT_EQ(KVN_NO_ERROR, client.Execute(hCnx, sql, resultat)) << Narrow(sql) << ": " << ErrorText();
    return resultat;
}

std::string E2eTest::ErrorText(int cnx) {
    DStr text(L"(no text)");
    const int r = client.GetLastErrorConnexion(cnx != 0 ? cnx : hCnx, text);
    if (r != KVN_NO_ERROR) return "(GetLastErrorConnexion: " + std::to_string(r) + ")";
    return Narrow(text.GetString());
}

std::vector<long> E2eTest::SelectIds(const wchar_t* sql, int* fetchEnd, int cnx) {
    if (cnx == 0) cnx = hCnx;
    std::vector<long> ids;
    int resultat = -1;
    const int r = client.ExecuteSelect(cnx, sql, resultat);
    EXPECT_EQ(KVN_NO_ERROR, r) << ErrorText(cnx);
    int f = r;
    while (r == KVN_NO_ERROR && (f = client.Fetch(cnx)) == KVN_NO_ERROR && ids.size() < 100000) {
        long id = -1;
        EXPECT_EQ(KVN_NO_ERROR, client.GetData(cnx, 1, id));
        ids.push_back(id);
    }
    if (fetchEnd != nullptr) *fetchEnd = f;
    return ids;
}

void E2eTest::SelectOne(const wchar_t* sql) {
    int resultat = -1;
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, sql, resultat)) << ErrorText();
    ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx));
}

std::wstring E2eTest::Read(int col, char kind) {
    long l = 5;
    short s = 5;
    __int64 b = 5;
    double d = 5;
    GUID g;
    SYSTEMTIME t;
    std::memset(&g, 0xAB, sizeof g);
    std::memset(&t, 0xAB, sizeof t);
    DStr x(L"before");
    CString c(L"before");
    wchar_t w[256] = L"before";
    wchar_t text[64] = L"?";
    int rc = -12345;
    switch (kind) {
    case 'l': rc = client.GetData(hCnx, col, l), std::swprintf(text, 64, L"%ld", l); break;
    case 's': rc = client.GetData(hCnx, col, s), std::swprintf(text, 64, L"%d", s); break;
    case 'b': rc = client.GetData(hCnx, col, b), std::swprintf(text, 64, L"%lld", static_cast<long long>(b)); break;
    case 'd': rc = client.GetData(hCnx, col, d), std::swprintf(text, 64, L"%.10g", d); break;
    case 'g': rc = client.GetData(hCnx, col, g), KvnUuidToString(&g, text); break;
    case 't':
        rc = client.GetData(hCnx, col, t);
        std::swprintf(text, 64, L"%04d-%02d-%02d %02d:%02d:%02d.%03d", t.wYear, t.wMonth, t.wDay, t.wHour,
                      t.wMinute, t.wSecond, t.wMilliseconds);
        break;
    case 'x': rc = client.GetData(hCnx, col, x); break;
    case 'c': rc = client.GetData(hCnx, col, c); break;
    case 'w': rc = client.GetData(hCnx, col, w); break;
    }
    const std::wstring value = kind == 'x' ? x.GetString() : kind == 'c' ? c.GetString() : kind == 'w' ? w : text;
    if (rc == KVN_NO_ERROR) return value;
    return rc == KVN_NULL_DATA ? L"NULL " + value : L"rc " + std::to_wstring(rc);
}

void E2eTest::ExpectReads(std::initializer_list<Reading> readings) {
    for (const Reading& r : readings) EXPECT_EQ(r.expected, Read(r.col, r.kind)) << "column " << r.col << " as " << r.kind;
}

}  // namespace e2e
