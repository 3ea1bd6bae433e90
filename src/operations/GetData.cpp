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
#include <new>
#include <optional>

#include "client/CConnexionKorvane.h"
#include "diag/Log.h"
#include "operations/RequestFrame.h"
#include "platform/DateTime.h"
#include "platform/Uuid.h"
#include "protocol/ValueText.h"
#include "protocol/ValueTypes.h"

namespace {

// The value's text in the incompatibility line is cut to this many characters:
// a column may hold a long text, the line is only a hint.
const int kMaxValeurLogLen = 100;

bool IsText(const CParam& v) { return IsTextType(v.cType); }

const wchar_t* TextOf(const CParam& v) { return v.pszValeur ? v.pszValeur : L""; }

bool IsHighSurrogate(wchar_t c) {
    return static_cast<std::uint32_t>(c) >= 0xD800 && static_cast<std::uint32_t>(c) <= 0xDBFF;
}

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

// A value of the current row, copied under the row buffer's lock: what the
// conversions read, as a CParam. A text of up to kTexteCourt characters is
// held inside the copy, a longer one on the heap, so that reading a short
// text allocates nothing.
class CCopieValeur {
public:
    CCopieValeur() = default;
    ~CCopieValeur() {
        if (m_param.pszValeur == m_texte) m_param.pszValeur = nullptr;  // not the CParam's to free
    }
    CCopieValeur(const CCopieValeur&) = delete;
    CCopieValeur& operator=(const CCopieValeur&) = delete;

    const CParam& Get() const { return m_param; }

    // The reader that CSelectBuffer::LitData runs under its lock.
    static void Lire(const CParam& src, void* contexte) {
        static_cast<CCopieValeur*>(contexte)->Copie(src);
    }

private:
    static const std::size_t kTexteCourt = 63;

    void Copie(const CParam& src) {
        m_param.cType = src.cType;
        m_param.nTaille = src.nTaille;
        m_param.bNull = src.bNull;
        m_param.valNum = src.valNum;
        m_param.dateValeur = src.dateValeur;
        std::memcpy(&m_param.guidValeur, &src.guidValeur, sizeof(GUID));  // packed field
        if (src.pszValeur == nullptr) return;
        const std::size_t n = std::wcslen(src.pszValeur);
        wchar_t* texte = n <= kTexteCourt ? m_texte : new (std::nothrow) wchar_t[n + 1];
        if (texte == nullptr) return;  // out of memory: read as no text
        std::wmemcpy(texte, src.pszValeur, n + 1);
        m_param.pszValeur = texte;
    }

    CParam m_param;
    wchar_t m_texte[kTexteCourt + 1];
};

// Copies column col of the connection's current row into v, under the row
// buffer's lock, and sets the connection's status as every read does: 0 and
// 0 when the column was found, -2 and 100 when it was not.
bool LitColonne(CConnexionKorvane* cnx, int col, CCopieValeur& v) {
    const bool found = cnx->m_selectBuffer.LitData(col, CCopieValeur::Lire, &v) == 0;
    cnx->m_nResultat = found ? 0 : KVN_ERROR_UNKNOWN;
    cnx->m_nCodeErreur = found ? 0 : KVN_NO_DATA;
    return found;
}

// Where a read is called from: the call site written to the debugger output
// for an unknown handle and the prefix of the lock line (0 and null: none).
struct KvnSiteLecture {
    int nSite;
    const wchar_t* prefix;
};
const KvnSiteLecture kLong = {7, L"CKorvaneClient::GetData1"};
const KvnSiteLecture kDouble = {8, L"CKorvaneClient::GetData2"};
const KvnSiteLecture kCString = {9, L"CKorvaneClient::GetData3"};
const KvnSiteLecture kDStr = {10, L"CKorvaneClient::GetData4"};
const KvnSiteLecture kBuffer = {11, L"CKorvaneClient::GetData5"};
const KvnSiteLecture kSystemTime = {12, L"CKorvaneClient::GetData6"};
const KvnSiteLecture kParam = {13, L"CKorvaneClient::GetData7"};
const KvnSiteLecture kSansLigne = {0, nullptr};  // GUID and __int64

// The opening that every column read shares: the connection looked up, its
// link tested, its request lock taken (and held until this object goes out
// of scope), the value copied. Open returns 0 when there is a value to
// convert; otherwise the read's result: -62 (unknown handle, lock), -53
// (link down), KVN_NO_DATA (no row, no such column).
class CLectureColonne {
public:
    int Open(CKorvaneClient* client, int hCnx, int col, const KvnSiteLecture& site) {
        m_ref = CRequestFrame::FindConnexion(client, hCnx, site.nSite);
        CConnexionKorvane* cnx = m_ref.get();
        if (cnx == nullptr) return KVN_ERROR_HANDLE_CNX;
        if (!CRequestFrame::IsLinkUp(client, cnx)) return KVN_ERROR_SOCKET_CLOSED;
        m_lock.emplace(cnx, site.prefix);
        if (!m_lock->IsHeld()) return KVN_ERROR_HANDLE_CNX;
        return LitColonne(cnx, col, m_valeur) ? KVN_NO_ERROR : KVN_NO_DATA;
    }
    const CParam& Valeur() const { return m_valeur.Get(); }

private:
    CCnxRef m_ref;  // released last, after the lock
    std::optional<CUseCnxLock> m_lock;
    CCopieValeur m_valeur;
};

// The text of a value for the text destinations: a text value's own, or a
// number or date formatted into `scratch`. Null when the destination is to
// be left as it is (a type without a text form, an impossible date).
const wchar_t* ValueToText(const CParam& v, DStr& scratch) {
    switch (TypeByte(v.cType)) {
    case TypeByte(SQL_C_LONG):
        scratch.Printf(L"%ld", static_cast<long>(v.valNum.lVal));
        return scratch.GetString();
    case TypeByte(SQL_C_SBIGINT):
        scratch.Printf(L"%lld", static_cast<long long>(v.valNum.llVal));
        return scratch.GetString();
    case TypeByte(SQL_C_DOUBLE):
        scratch.Printf(L"%lf", v.valNum.dVal);
        return scratch.GetString();
    case TypeByte(SQL_C_CHAR):
    case TypeByte(SQL_C_WCHAR):
        return TextOf(v);
    case TypeByte(SQL_C_TIMESTAMP): {
        SYSTEMTIME st = TimestampToSystemTime(v.dateValeur);
        double date = 0;
        if (!KvnSystemTimeToVariantTime(&st, &date)) return nullptr;
        if (!KvnVarBstrFromDate(date, scratch)) scratch = L"Invalid DateTime";
        return scratch.GetString();
    }
    default:
        return nullptr;
    }
}

// The all-digit text of a value for a numeric destination, or null when the
// value is not a text of digits alone. An empty text passes and converts
// nothing: the destination keeps its value.
const wchar_t* Digits(const CParam& v) {
    if (!IsText(v) || !IsAllDigits(TextOf(v))) return nullptr;
    return TextOf(v);
}

} // namespace

int CKorvaneClient::m_GetData(CConnexionKorvane* cnx, int /*hCnx*/, int col, CParam& valeur) {
    CCopieValeur v;
    if (LitColonne(cnx, col, v)) valeur = v.Get();
    return 0;
}

// ---- Numbers ------------------------------------------------------------------

int CKorvaneClient::GetData(int hCnx, int col, long& valeur) {
    CLectureColonne lu;
    int r = lu.Open(this, hCnx, col, kLong);
    if (r != KVN_NO_ERROR) return r;
    const CParam& v = lu.Valeur();
    if (v.bNull) {
        valeur = KVN_NULL_DATA;
        return KVN_NULL_DATA;
    }
    switch (TypeByte(v.cType)) {
    case TypeByte(SQL_C_LONG): valeur = v.valNum.lVal; return KVN_NO_ERROR;
    case TypeByte(SQL_C_SBIGINT):
        valeur = static_cast<std::int32_t>(static_cast<std::uint32_t>(v.valNum.llVal & 0xFFFFFFFF));
        return KVN_NO_ERROR;
    case TypeByte(SQL_C_DOUBLE): valeur = DoubleToInt32(v.valNum.dVal); return KVN_NO_ERROR;
    default:
        if (const wchar_t* digits = Digits(v)) {
            if (*digits) valeur = std::wcstol(digits, nullptr, 10);
            return KVN_NO_ERROR;
        }
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
    CLectureColonne lu;
    int r = lu.Open(this, hCnx, col, kSansLigne);
    if (r != KVN_NO_ERROR) return r;
    const CParam& v = lu.Valeur();
    if (v.bNull) {
        valeur = KVN_NULL_DATA;
        return KVN_NULL_DATA;
    }
    switch (TypeByte(v.cType)) {
    case TypeByte(SQL_C_LONG): valeur = v.valNum.lVal; return KVN_NO_ERROR;
    case TypeByte(SQL_C_SBIGINT): valeur = v.valNum.llVal; return KVN_NO_ERROR;
    case TypeByte(SQL_C_DOUBLE): valeur = DoubleToInt64(v.valNum.dVal); return KVN_NO_ERROR;
    default:
        if (const wchar_t* digits = Digits(v)) {
            if (*digits) valeur = std::wcstoll(digits, nullptr, 10);
            return KVN_NO_ERROR;
        }
        break;
    }
    LogIncompatible(col, L"int64", v);
    return KVN_ERROR_DATATYPE;
}

int CKorvaneClient::GetData(int hCnx, int col, double& valeur) {
    CLectureColonne lu;
    int r = lu.Open(this, hCnx, col, kDouble);
    if (r != KVN_NO_ERROR) return r;
    const CParam& v = lu.Valeur();
    if (v.bNull) {
        valeur = KVN_NULL_DATA;
        return KVN_NULL_DATA;
    }
    switch (TypeByte(v.cType)) {
    case TypeByte(SQL_C_LONG): valeur = v.valNum.lVal; return KVN_NO_ERROR;
    case TypeByte(SQL_C_SBIGINT): valeur = static_cast<double>(v.valNum.llVal); return KVN_NO_ERROR;
    case TypeByte(SQL_C_DOUBLE): valeur = v.valNum.dVal; return KVN_NO_ERROR;
    default:
        // Digits only: a decimal point or an exponent is refused here too.
        if (const wchar_t* digits = Digits(v)) {
            if (*digits) valeur = std::wcstod(digits, nullptr);
            return KVN_NO_ERROR;
        }
        break;
    }
    LogIncompatible(col, L"double", v);
    return KVN_ERROR_DATATYPE;
}

// ---- GUID, date, the value itself ------------------------------------------------

int CKorvaneClient::GetData(int hCnx, int col, GUID& valeur) {
    CLectureColonne lu;
    int r = lu.Open(this, hCnx, col, kSansLigne);
    if (r != KVN_NO_ERROR) return r;
    const CParam& v = lu.Valeur();
    if (v.bNull) {
        KvnUuidCreateNil(&valeur);
        return KVN_NULL_DATA;
    }
    GUID g;
    if (IsText(v) && KvnUuidFromString(TextOf(v), &g)) {
        valeur = g;
        return KVN_NO_ERROR;
    }
    LogIncompatible(col, L"GUID", v);
    return KVN_ERROR_DATATYPE;
}

int CKorvaneClient::GetData(int hCnx, int col, SYSTEMTIME& valeur) {
    CLectureColonne lu;
    int r = lu.Open(this, hCnx, col, kSystemTime);
    if (r != KVN_NO_ERROR) return r;
    const CParam& v = lu.Valeur();
    if (v.bNull) {
        std::memset(&valeur, 0, sizeof(valeur));
        return KVN_NULL_DATA;
    }
    // No type test: a value that is not a timestamp has an all-zero date.
    valeur = TimestampToSystemTime(v.dateValeur);
    return KVN_NO_ERROR;
}

int CKorvaneClient::GetData(int hCnx, int col, CParam& valeur) {
    CLectureColonne lu;
    int r = lu.Open(this, hCnx, col, kParam);
    if (r != KVN_NO_ERROR) return r;
    // A NULL value is a value like any other here: its bNull tells.
    valeur = lu.Valeur();
    return KVN_NO_ERROR;
}

// ---- Texts ------------------------------------------------------------------------

int CKorvaneClient::GetData(int hCnx, int col, CString& valeur) {
    CLectureColonne lu;
    int r = lu.Open(this, hCnx, col, kCString);
    if (r != KVN_NO_ERROR) return r;
    if (lu.Valeur().bNull) {
        valeur.Empty();
        return KVN_NULL_DATA;
    }
    DStr scratch;
    if (const wchar_t* text = ValueToText(lu.Valeur(), scratch)) valeur = text;
    return KVN_NO_ERROR;
}

int CKorvaneClient::GetData(int hCnx, int col, DStr& valeur) {
    CLectureColonne lu;
    int r = lu.Open(this, hCnx, col, kDStr);
    if (r != KVN_NO_ERROR) return r;
    if (lu.Valeur().bNull) {
        valeur.Empty();
        return KVN_NULL_DATA;
    }
    DStr scratch;
    if (const wchar_t* text = ValueToText(lu.Valeur(), scratch)) valeur = text;
    return KVN_NO_ERROR;
}

int CKorvaneClient::GetData(int hCnx, int col, wchar_t* valeur) {
    CLectureColonne lu;
    int r = lu.Open(this, hCnx, col, kBuffer);
    if (r != KVN_NO_ERROR) return r;
    // No buffer, nowhere to write: refused rather than dereferenced.
    if (valeur == nullptr) return KVN_ERROR_PARAMETER;
    if (lu.Valeur().bNull) {
        valeur[0] = L'\0';
        return KVN_NULL_DATA;
    }
    // Exactly the text and its terminator: the caller sized the buffer for
    // the longest text of the column, nothing beyond it is touched.
    DStr scratch;
    if (const wchar_t* text = ValueToText(lu.Valeur(), scratch))
        std::wmemcpy(valeur, text, std::wcslen(text) + 1);
    return KVN_NO_ERROR;
}

int CKorvaneClient::GetData(int hCnx, int col, wchar_t* valeur, int capacite, int* longueur) {
    CLectureColonne lu;
    int r = lu.Open(this, hCnx, col, kBuffer);
    if (r != KVN_NO_ERROR) return r;
    if (valeur == nullptr || capacite < 1) return KVN_ERROR_PARAMETER;
    if (lu.Valeur().bNull) {
        valeur[0] = L'\0';
        if (longueur) *longueur = 0;
        return KVN_NULL_DATA;
    }
    DStr scratch;
    const wchar_t* text = ValueToText(lu.Valeur(), scratch);
    if (text == nullptr) return KVN_NO_ERROR;  // no text form: the buffer is left alone
    const std::size_t n = std::wcslen(text);
    const std::size_t room = static_cast<std::size_t>(capacite) - 1;
    std::size_t kept = n < room ? n : room;
    // Where wchar_t is 16 bits, the first half of a pair is not kept alone.
    if (sizeof(wchar_t) == 2 && kept < n && kept > 0 && IsHighSurrogate(text[kept - 1]))
        --kept;
    std::wmemcpy(valeur, text, kept);
    valeur[kept] = L'\0';
    if (longueur) *longueur = static_cast<int>(n);
    return kept < n ? KVN_DATA_TRUNCATED : KVN_NO_ERROR;
}
