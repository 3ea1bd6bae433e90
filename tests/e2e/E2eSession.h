// The library's client against korvaned run as a program: a service on a
// temporary SQLite file (or another ODBC data source), a CKorvaneClient with
// an open session on it, and one logical connection.
#ifndef KVN_TESTS_E2E_E2ESESSION_H
#define KVN_TESTS_E2E_E2ESESSION_H

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>

#include "RunningService.h"
#include "client/CConnexionKorvane.h"
#include "platform/Kernel.h"

namespace e2e {

// A copy of a field of a packed value: the checks take their arguments by
// reference, which a packed field cannot bind to.
template <class T>
T Copy(T value) {
    return value;
}

// Printable text of a wide string, for failure messages (non-ASCII as '?').
std::string Narrow(const wchar_t* text);

class E2eClient : public CKorvaneClient {
public:
    // Whether the main link is watched by the thread that notices a loss.
    bool MainLinkSupervised() const { return m_hThreadSockPrincipale != nullptr; }
    // Waits for an answer stored on the connection that no request waits for.
    bool WaitForAnswer(int hCnx, DWORD timeoutMs) {
        CConnexionKorvane* cnx = m_GetConnexionByIdList(hCnx);
        return cnx != nullptr && KvnWaitForSingleObject(cnx->hEvtResultArrived, timeoutMs) == WAIT_OBJECT_0;
    }
};

class E2eTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts korvaned with `arguments`, opens the session and one connection
    // (hCnx). Fails the test when any of it does not work.
    void Start(const std::vector<std::string>& arguments);

    // Runs a statement that must succeed; its result (the rows affected).
    int MustExecute(const wchar_t* sql);
    // The service's text of the connection's last database error.
    std::string ErrorText(int cnx = 0);
    // Runs a select, fetching until the end: the integer first column of every
    // row; *fetchEnd gets the last Fetch's result.
    std::vector<long> SelectIds(const wchar_t* sql, int* fetchEnd = nullptr, int cnx = 0);
    // Makes the first row of `sql` current.
    void SelectOne(const wchar_t* sql);

    // Column col of the current row read with the GetData overload `kind`
    // (l long, s short, b __int64, d double, g GUID, t SYSTEMTIME, x DStr,
    // c CString, w wchar_t buffer), as text: the value; "NULL value" for
    // KVN_NULL_DATA; "rc code" for a failure. Numbers start as 5, GUID and
    // SYSTEMTIME as bytes 0xAB, texts as "before": what a read leaves shows.
    std::wstring Read(int col, char kind);
    struct Reading {
        int col;
        char kind;
        std::wstring expected;
    };
    void ExpectReads(std::initializer_list<Reading> readings);

    std::unique_ptr<RunningService> service;
    E2eClient client;
    int hCnx = 0;
    int dbType = -1;
};

}  // namespace e2e

#endif
