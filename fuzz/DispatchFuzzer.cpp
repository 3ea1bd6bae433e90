// Fuzz target of the answers: messages of any function code dispatched into a
// connection (AnalyseFonction), the rows they leave in its row buffer walked
// and every column read with every GetData overload, and the values of a
// stored procedure's answer copied back into the application's variables.
//
// Input: a byte of flags, then messages back to back, each a 16-byte header
// and the body it announces (cut to what the input holds). The connection is
// registered with a client without any thread or socket, so nothing is sent:
// only what the library makes of the answers is exercised.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <memory>

#include <korvane/CKorvaneClient.h>

#include "FuzzSupport.h"
#include "client/CConnexionKorvane.h"
#include "diag/Log.h"
#include "operations/StoredProcs.h"
#include "platform/Kernel.h"

namespace {

constexpr int kMessages = 8;
// The room of the application's variable of an OUT text: the longest text a
// record can carry, and its terminator.
constexpr std::size_t kTexteMax = 32767 + 1;

class FuzzClient : public CKorvaneClient {
public:
    FuzzClient() {
        cnx = new CConnexionKorvane;
        cnx->m_nIdConnexion = 1;
        cnx->m_bConnected = TRUE;
        cnx->hEvtResultArrived = KvnCreateEvent(FALSE, FALSE);
        m_AddConnexionList(cnx);
        m_bAllConnected = TRUE;
    }
    CConnexionKorvane* cnx;
};

FuzzClient& Client() {
    static FuzzClient* client = new FuzzClient;  // lives as long as the process
    return *client;
}

// The OUT and IN/OUT variables of a procedure of every type, and the
// parameters that point at them.
struct Variables {
    std::int32_t l = 0;
    double d = 0;
    std::int64_t ll = 0;
    KvnTimestamp ts{};
    wchar_t texte[kTexteMax];
    wchar_t inout[kTexteMax];
};

void Declare(CConnexionKorvane& cnx, Variables& v) {
    struct Decl {
        int sens, type;
        void* variable;
    } const decls[] = {{KVN_PARAM_IN, SQL_C_LONG, &v.l},      {KVN_PARAM_INOUT, SQL_C_LONG, &v.l},
                       {KVN_PARAM_OUT, SQL_C_DOUBLE, &v.d},   {KVN_PARAM_OUT, SQL_C_SBIGINT, &v.ll},
                       {KVN_PARAM_OUT, SQL_C_TIMESTAMP, &v.ts}, {KVN_PARAM_OUT, SQL_C_WCHAR, v.texte},
                       {KVN_PARAM_INOUT, SQL_C_CHAR, v.inout}};
    cnx.m_nNbParamProc = 0;
    for (const Decl& d : decls) {
        CParamProc& p = cnx.m_tabParamProc[cnx.m_nNbParamProc++];
        p.cType = static_cast<signed char>(d.type);
        p.nSens = d.sens;
        p.pVariable = d.sens == KVN_PARAM_IN ? nullptr : d.variable;
    }
}

// Every overload on every column of the current row, and one past each end.
void ReadRow(FuzzClient& client, CConnexionKorvane& cnx, std::uint8_t capacite) {
    const int h = cnx.m_nIdConnexion;
    static wchar_t grand[kTexteMax + 64];
    for (int col = 0; col <= 4; ++col) {
        long l = 0;
        short sh = 0;
        long long ll = 0;
        double d = 0;
        kvn::GUID g;
        kvn::SYSTEMTIME st;
        CParam p;
        CString cs;
        DStr ds;
        const int results[] = {client.GetData(h, col, l),  client.GetData(h, col, sh),
                               client.GetData(h, col, ll), client.GetData(h, col, d),
                               client.GetData(h, col, g),  client.GetData(h, col, st),
                               client.GetData(h, col, p),  client.GetData(h, col, cs),
                               client.GetData(h, col, ds), client.GetData(h, col, grand)};
        for (int r : results) {
            FUZZ_CHECK(r == KVN_NO_ERROR || r == KVN_NO_DATA || r == KVN_NULL_DATA ||
                       r == KVN_ERROR_DATATYPE);
        }
        // The bounded read never writes past its capacity.
        const int room = capacite % 16 + 1;
        wchar_t borne[32];
        std::wmemset(borne, L'#', 32);
        int longueur = -1;
        const int r = client.GetData(h, col, borne, room, &longueur);
        FUZZ_CHECK(r == KVN_NO_ERROR || r == KVN_NO_DATA || r == KVN_NULL_DATA ||
                   r == KVN_DATA_TRUNCATED);
        for (int i = room; i < 32; ++i) FUZZ_CHECK(borne[i] == L'#');
        if (r == KVN_DATA_TRUNCATED) FUZZ_CHECK(longueur >= room);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::uint8_t flags = data[0];
    FuzzClient& client = Client();
    CConnexionKorvane& cnx = *client.cnx;
    cnx.m_selectBuffer.VideBuffer();
    cnx.m_nNbResultats = 0;
    KvnResetLogForTests();
    if (flags & 1) InitLog(7, nullptr, 0);  // the incompatibility lines are formatted too

    auto vars = std::make_unique<Variables>();
    Declare(cnx, *vars);

    std::size_t pos = 1;
    for (int k = 0; k < kMessages; ++k) {
        std::unique_ptr<BYTE[]> message = fuzzsupport::NextMessage(data, size, pos);
        if (!message) break;
        CMsgSocketClient msg;
        if (msg.AnalyseMessageComplet(message.get()) != 1) continue;
        const int fonction = msg.GetFonction();
        msg.AnalyseFonction(&cnx);
        FUZZ_CHECK(msg.GetNbParametre() == 0);  // dispatched messages are cleared
        FUZZ_CHECK(cnx.m_nNbResultats >= 0 && cnx.m_nNbResultats <= KVN_NB_PARAM_CNX);

        if (fonction == KVN_EXECUTEPROC && cnx.m_nResultat == 0) {
            const int r = CopyBackOutValues(cnx);
            FUZZ_CHECK(r == KVN_NO_ERROR || r == KVN_ERROR_PARAMETER || r == KVN_ERROR_RECEIVE);
            FUZZ_CHECK(std::wcslen(vars->texte) < kTexteMax && std::wcslen(vars->inout) < kTexteMax);
        }
        // The rows: read the head row, then walk them all.
        ReadRow(client, cnx, flags >> 1);
        for (int remaining = 0, rows = 0; rows < 16; ++rows) {
            if (cnx.m_selectBuffer.Fetch(remaining) != KVN_NO_ERROR) break;
            FUZZ_CHECK(remaining >= 0 && remaining < 64 * 1024);
            ReadRow(client, cnx, static_cast<std::uint8_t>(flags + rows));
        }
    }
    // The values stay with the connection until its next answer. Their texts
    // are released here: CParam is packed, so a text's pointer can sit where
    // the leak checker, which looks for pointers at aligned places only, does
    // not see it, and a text still held would pass for a leak.
    for (CParam& p : cnx.m_tabParam) {
        delete[] p.pszValeur;
        p.pszValeur = nullptr;
    }
    cnx.m_selectBuffer.VideBuffer();
    KvnResetLogForTests();
    return 0;
}
