// The GetData family: reading one column of the current row of a select as
// the type the application asks for. Nothing is exchanged with the service:
// each read copies the value out of the connection's row buffer under the
// connection's request lock and converts the private copy.
//
// Outcomes, in the order they are decided: unknown handle (-62), link down
// (-53), request lock not obtained (-62), no row or no such column
// (KVN_NO_DATA), NULL value (KVN_NULL_DATA, with the overload's NULL value
// stored), then the conversion's own result (0, or KVN_ERROR_DATATYPE for a
// value that cannot become a number or a GUID).
#include <korvane/CKorvaneClient.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <optional>

#include "client/CConnexionKorvane.h"
#include "diag/Log.h"
#include "operations/RequestFrame.h"
#include "platform/DateTime.h"
#include "platform/Uuid.h"
#include "protocol/ValueText.h"

namespace {

// The value's text in the incompatibility line is cut to this many characters:
// a column may hold a long text, the line is only a hint.
const int kMaxValeurLogLen = 100;

constexpr unsigned char TypeByte(signed char cType) { return static_cast<unsigned char>(cType); }

bool IsText(const CParam& v) {
    return TypeByte(v.cType) == TypeByte(SQL_C_CHAR) || TypeByte(v.cType) == TypeByte(SQL_C_WCHAR);
}

const wchar_t* TextOf(const CParam& v) { return v.pszValeur ? v.pszValeur : L""; }

// 1 when text is empty or made of decimal digits only: no sign, blank,
// decimal point or exponent is admitted.
int IsAllDigits(const wchar_t* text) {
    for (; *text; text++) {
        if (!std::iswdigit(static_cast<wint_t>(*text))) return 0;
    }
    return 1;
}

SYSTEMTIME TimestampToSystemTime(const KvnTimestamp& ts) {
    SYSTEMTIME st;
    st.wYear = static_cast<WORD>(ts.year);
    st.wMonth = ts.month;
    st.wDayOfWeek = 0;
    st.wDay = ts.day;
    st.wHour = ts.hour;
    st.wMinute = ts.minute;
    st.wSecond = ts.second;
    st.wMilliseconds = static_cast<WORD>(ts.fraction & 0xFFFF);
    return st;
}

// Truncation toward zero as the x86 conversion instruction does it: a value
// out of the destination's range (or not a number) gives the "integer
// indefinite", the destination's lowest value, instead of undefined behaviour.
std::int32_t DoubleToInt32(double d) {
    if (!(d > -2147483649.0 && d < 2147483648.0)) return INT32_MIN;
    return static_cast<std::int32_t>(d);
}

std::int64_t DoubleToInt64(double d) {
    if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) return INT64_MIN;
    return static_cast<std::int64_t>(d);
}

void LogIncompatible(int col, const wchar_t* cible, const CParam& v) {
    if (GetLogLevel() < 4) return;
    wchar_t nom[32];
    GetNomType(TypeByte(v.cType), nom, 1);
    DStr valeur;
    ParamValeurToDStr(&v, valeur, 0);
    DStr shown;
    if (valeur.Length() > kMaxValeurLogLen) {
        wchar_t cut[kMaxValeurLogLen + 1];
        std::wmemcpy(cut, valeur.GetString(), kMaxValeurLogLen);
        cut[kMaxValeurLogLen] = L'\0';
        shown = cut;
        shown += L"...";
    } else {
        shown = valeur;
    }
    WriteLogF(4,
              L"CKorvaneClient::GetData(): col %d: type de donnee incompatible (%ls demande %ls "
              L"trouve (val = %ls))",
              col, cible, nom, shown.GetString());
}

// The steps every column read shares before the value is copied: the
// connection looked up, its link tested, its request lock taken (and held
// until this object goes out of scope).
class CColumnAccess {
public:
    // 0 when the read may go on; else the result code to return.
    int Open(CKorvaneClient* client, int hCnx, int nSite, const wchar_t* prefix) {
        m_pCnx = CRequestFrame::FindConnexion(client, hCnx, nSite);
        if (m_pCnx == nullptr) return KVN_ERROR_HANDLE_CNX;
        if (!CRequestFrame::IsLinkUp(client, m_pCnx)) return KVN_ERROR_SOCKET_CLOSED;
        m_lock.emplace(m_pCnx, prefix);
        if (!m_lock->IsHeld()) return KVN_ERROR_HANDLE_CNX;
        return KVN_NO_ERROR;
    }
    CConnexionKorvane* Cnx() const { return m_pCnx; }
    // 0 when the column was found; KVN_NO_DATA otherwise (the connection's
    // status after m_GetData).
    int Found() const { return m_pCnx->m_nResultat != 0 ? m_pCnx->m_nCodeErreur.load() : 0; }

private:
    CConnexionKorvane* m_pCnx = nullptr;
    std::optional<CUseCnxLock> m_lock;
};

// The text form of a value for the text destinations. false: the destination
// is left as it is (a type without a text form, an impossible date).
bool ValueToText(const CParam& v, DStr& text) {
    switch (TypeByte(v.cType)) {
    case TypeByte(SQL_C_LONG):
        text.Printf(L"%ld", static_cast<long>(v.valNum.lVal));
        return true;
    case TypeByte(SQL_C_SBIGINT):
        text.Printf(L"%lld", static_cast<long long>(v.valNum.llVal));
        return true;
    case TypeByte(SQL_C_DOUBLE):
        text.Printf(L"%lf", v.valNum.dVal);
        return true;
    case TypeByte(SQL_C_CHAR):
    case TypeByte(SQL_C_WCHAR):
        text = TextOf(v);
        return true;
    case TypeByte(SQL_C_TIMESTAMP): {
        SYSTEMTIME st = TimestampToSystemTime(v.dateValeur);
        double date = 0;
        if (!KvnSystemTimeToVariantTime(&st, &date)) return false;
        if (!KvnVarBstrFromDate(date, text)) text = L"Invalid DateTime";
        return true;
    }
    default:
        return false;
    }
}

} // namespace

int CKorvaneClient::m_GetData(CConnexionKorvane* cnx, int /*hCnx*/, int col, CParam& valeur) {
    CParam* p = nullptr;
    if (cnx->m_selectBuffer.GetData(col, &p) == 0 && p != nullptr) {
        valeur = *p;
        cnx->m_nResultat = 0;
        cnx->m_nCodeErreur = 0;
    } else {
        cnx->m_nResultat = KVN_ERROR_UNKNOWN;
        cnx->m_nCodeErreur = KVN_NO_DATA;
    }
    return 0;
}

// ---- Numbers ------------------------------------------------------------------

int CKorvaneClient::GetData(int hCnx, int col, long& valeur) {
    CColumnAccess access;
    int r = access.Open(this, hCnx, 7, L"CKorvaneClient::GetData1");
    if (r != KVN_NO_ERROR) return r;
    CParam v;
    m_GetData(access.Cnx(), hCnx, col, v);
    if ((r = access.Found()) != 0) return r;
    if (v.bNull) {
        valeur = KVN_NULL_DATA;
        return KVN_NULL_DATA;
    }
    switch (TypeByte(v.cType)) {
    case TypeByte(SQL_C_LONG):
        valeur = v.valNum.lVal;
        return KVN_NO_ERROR;
    case TypeByte(SQL_C_SBIGINT):
        valeur = static_cast<std::int32_t>(static_cast<std::uint32_t>(v.valNum.llVal & 0xFFFFFFFF));
        return KVN_NO_ERROR;
    case TypeByte(SQL_C_DOUBLE):
        valeur = DoubleToInt32(v.valNum.dVal);
        return KVN_NO_ERROR;
    case TypeByte(SQL_C_CHAR):
    case TypeByte(SQL_C_WCHAR):
        if (IsAllDigits(TextOf(v))) {
            // An empty text converts nothing and leaves valeur as it was.
            if (*TextOf(v)) valeur = std::wcstol(TextOf(v), nullptr, 10);
            return KVN_NO_ERROR;
        }
        break;
    default:
        break;
    }
    LogIncompatible(col, L"long", v);
    return KVN_ERROR_DATATYPE;
}

int CKorvaneClient::GetData(int hCnx, int col, short& valeur) {
    long l = 0;
    int r = GetData(hCnx, col, l);
    if (r == KVN_NO_ERROR) valeur = static_cast<short>(static_cast<std::uint16_t>(l & 0xFFFF));
    return r;
}

int CKorvaneClient::GetData(int hCnx, int col, __int64& valeur) {
    CColumnAccess access;
    int r = access.Open(this, hCnx, 0, nullptr);
    if (r != KVN_NO_ERROR) return r;
    CParam v;
    m_GetData(access.Cnx(), hCnx, col, v);
    if ((r = access.Found()) != 0) return r;
    if (v.bNull) {
        valeur = KVN_NULL_DATA;
        return KVN_NULL_DATA;
    }
    switch (TypeByte(v.cType)) {
    case TypeByte(SQL_C_LONG):
        valeur = v.valNum.lVal;
        return KVN_NO_ERROR;
    case TypeByte(SQL_C_SBIGINT):
        valeur = v.valNum.llVal;
        return KVN_NO_ERROR;
    case TypeByte(SQL_C_DOUBLE):
        valeur = DoubleToInt64(v.valNum.dVal);
        return KVN_NO_ERROR;
    case TypeByte(SQL_C_CHAR):
    case TypeByte(SQL_C_WCHAR):
        if (IsAllDigits(TextOf(v))) {
            if (*TextOf(v)) valeur = std::wcstoll(TextOf(v), nullptr, 10);
            return KVN_NO_ERROR;
        }
        break;
    default:
        break;
    }
    LogIncompatible(col, L"int64", v);
    return KVN_ERROR_DATATYPE;
}

int CKorvaneClient::GetData(int hCnx, int col, double& valeur) {
    CColumnAccess access;
    int r = access.Open(this, hCnx, 8, L"CKorvaneClient::GetData2");
    if (r != KVN_NO_ERROR) return r;
    CParam v;
    m_GetData(access.Cnx(), hCnx, col, v);
    if ((r = access.Found()) != 0) return r;
    if (v.bNull) {
        valeur = KVN_NULL_DATA;
        return KVN_NULL_DATA;
    }
    switch (TypeByte(v.cType)) {
    case TypeByte(SQL_C_LONG):
        valeur = v.valNum.lVal;
        return KVN_NO_ERROR;
    case TypeByte(SQL_C_SBIGINT):
        valeur = static_cast<double>(v.valNum.llVal);
        return KVN_NO_ERROR;
    case TypeByte(SQL_C_DOUBLE):
        valeur = v.valNum.dVal;
        return KVN_NO_ERROR;
    case TypeByte(SQL_C_CHAR):
    case TypeByte(SQL_C_WCHAR):
        // Digits only: a decimal point or an exponent is refused here too.
        if (IsAllDigits(TextOf(v))) {
            if (*TextOf(v)) valeur = std::wcstod(TextOf(v), nullptr);
            return KVN_NO_ERROR;
        }
        break;
    default:
        break;
    }
    LogIncompatible(col, L"double", v);
    return KVN_ERROR_DATATYPE;
}

// ---- GUID, date, the value itself ------------------------------------------------

int CKorvaneClient::GetData(int hCnx, int col, GUID& valeur) {
    CColumnAccess access;
    int r = access.Open(this, hCnx, 0, nullptr);
    if (r != KVN_NO_ERROR) return r;
    CParam v;
    m_GetData(access.Cnx(), hCnx, col, v);
    if ((r = access.Found()) != 0) return r;
    if (v.bNull) {
        KvnUuidCreateNil(&valeur);
        return KVN_NULL_DATA;
    }
    if (IsText(v)) {
        GUID g;
        if (KvnUuidFromString(TextOf(v), &g)) {
            valeur = g;
            return KVN_NO_ERROR;
        }
    }
    LogIncompatible(col, L"GUID", v);
    return KVN_ERROR_DATATYPE;
}

int CKorvaneClient::GetData(int hCnx, int col, SYSTEMTIME& valeur) {
    CColumnAccess access;
    int r = access.Open(this, hCnx, 12, L"CKorvaneClient::GetData6");
    if (r != KVN_NO_ERROR) return r;
    CParam v;
    m_GetData(access.Cnx(), hCnx, col, v);
    if ((r = access.Found()) != 0) return r;
    if (v.bNull) {
        std::memset(&valeur, 0, sizeof(valeur));
        return KVN_NULL_DATA;
    }
    // No type test: a value that is not a timestamp has an all-zero date.
    valeur = TimestampToSystemTime(v.dateValeur);
    return KVN_NO_ERROR;
}

int CKorvaneClient::GetData(int hCnx, int col, CParam& valeur) {
    CColumnAccess access;
    int r = access.Open(this, hCnx, 13, L"CKorvaneClient::GetData7");
    if (r != KVN_NO_ERROR) return r;
    CParam v;
    m_GetData(access.Cnx(), hCnx, col, v);
    if ((r = access.Found()) != 0) return r;
    // A NULL value is a value like any other here: its bNull tells.
    valeur = v;
    return KVN_NO_ERROR;
}

// ---- Texts ------------------------------------------------------------------------

int CKorvaneClient::GetData(int hCnx, int col, CString& valeur) {
    CColumnAccess access;
    int r = access.Open(this, hCnx, 9, L"CKorvaneClient::GetData3");
    if (r != KVN_NO_ERROR) return r;
    CParam v;
    m_GetData(access.Cnx(), hCnx, col, v);
    if ((r = access.Found()) != 0) return r;
    if (v.bNull) {
        valeur.Empty();
        return KVN_NULL_DATA;
    }
    DStr text;
    if (ValueToText(v, text)) valeur = text.GetString();
    return KVN_NO_ERROR;
}

int CKorvaneClient::GetData(int hCnx, int col, DStr& valeur) {
    CColumnAccess access;
    int r = access.Open(this, hCnx, 10, L"CKorvaneClient::GetData4");
    if (r != KVN_NO_ERROR) return r;
    CParam v;
    m_GetData(access.Cnx(), hCnx, col, v);
    if ((r = access.Found()) != 0) return r;
    if (v.bNull) {
        valeur.Empty();
        return KVN_NULL_DATA;
    }
    DStr text;
    if (ValueToText(v, text)) valeur = text;
    return KVN_NO_ERROR;
}

int CKorvaneClient::GetData(int hCnx, int col, wchar_t* valeur) {
    CColumnAccess access;
    int r = access.Open(this, hCnx, 11, L"CKorvaneClient::GetData5");
    if (r != KVN_NO_ERROR) return r;
    CParam v;
    m_GetData(access.Cnx(), hCnx, col, v);
    if ((r = access.Found()) != 0) return r;
    // No buffer, nowhere to write: refused rather than dereferenced.
    if (valeur == nullptr) return KVN_ERROR_PARAMETER;
    if (v.bNull) {
        valeur[0] = L'\0';
        return KVN_NULL_DATA;
    }
    // Exactly the text and its terminator: the caller sized the buffer for
    // the longest text of the column, nothing beyond it is touched.
    DStr text;
    if (ValueToText(v, text)) std::wmemcpy(valeur, text.GetString(), static_cast<std::size_t>(text.Length()) + 1);
    return KVN_NO_ERROR;
}
