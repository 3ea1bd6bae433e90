// ODBC connections of the service, over unixODBC's narrow (UTF-8) functions.
#include "Odbc.h"

#include <sql.h>
#include <sqlext.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <deque>
#include <fstream>
#include <limits>
#include <mutex>

#include "ServiceLog.h"

namespace {

// A text value on the wire holds at most 32767 UTF-16 code units; reading
// more than 4 bytes a unit of UTF-8 is never useful.
constexpr std::size_t kMaxTextBytes = 32767 * 4;
// Room for the value of an OUT or IN/OUT text parameter.
constexpr std::size_t kOutTextBytes = 16384;

// The one environment of the process, made on first use.
SQLHENV Environment() {
    static SQLHENV env = SQL_NULL_HENV;
    static std::once_flag once;
    std::call_once(once, [] {
        if (!SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &env))) {
            env = SQL_NULL_HENV;
            return;
        }
        SQLSetEnvAttr(env, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
    });
    return env;
}

bool SameName(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

SQLCHAR* Sql(const std::string& text) {
    return reinterpret_cast<SQLCHAR*>(const_cast<char*>(text.c_str()));
}

SQLINTEGER SqlLength(const std::string& text) {
    return static_cast<SQLINTEGER>(std::min<std::size_t>(text.size(), std::numeric_limits<SQLINTEGER>::max()));
}

// How a result column is read and sent.
DbValue::Kind KindOfColumn(SQLSMALLINT sqlType) {
    switch (sqlType) {
    case SQL_BIT:
    case SQL_TINYINT:
    case SQL_SMALLINT:
    case SQL_INTEGER:
        return DbValue::Kind::Integer;
    case SQL_BIGINT:
        return DbValue::Kind::BigInt;
    case SQL_REAL:
    case SQL_FLOAT:
    case SQL_DOUBLE:
    case SQL_DECIMAL:
    case SQL_NUMERIC:
        return DbValue::Kind::Double;
    case SQL_DATE:
    case SQL_TIME:
    case SQL_TIMESTAMP:
    case SQL_TYPE_DATE:
    case SQL_TYPE_TIME:
    case SQL_TYPE_TIMESTAMP:
        return DbValue::Kind::Timestamp;
    default:
        return DbValue::Kind::Text;
    }
}

// Bytes that a value takes in a message: the 3-byte record head, then the
// value (a text at most 2 bytes for each of its UTF-8 bytes).
std::size_t WireBytes(const DbValue& v) {
    if (v.null) return 3;
    switch (v.kind) {
    case DbValue::Kind::Integer: return 3 + 4;
    case DbValue::Kind::BigInt:
    case DbValue::Kind::Double: return 3 + 8;
    case DbValue::Kind::Timestamp: return 3 + 18;
    case DbValue::Kind::Text: break;
    }
    return 3 + 2 * std::min<std::size_t>(v.text.size(), 32767);
}

// Cuts the longest texts of a row until it takes at most maxBytes on the
// wire: a row must fit in one message. Cuts fall on character boundaries.
void FitRow(std::vector<DbValue>& row, std::size_t& bytes, std::size_t maxBytes) {
    while (bytes > maxBytes) {
        DbValue* longest = nullptr;
        for (DbValue& v : row) {
            if (!v.null && v.kind == DbValue::Kind::Text && (!longest || v.text.size() > longest->text.size())) {
                longest = &v;
            }
        }
        if (!longest || longest->text.empty()) return;
        const std::size_t before = WireBytes(*longest);
        std::size_t keep = longest->text.size() / 2;
        while (keep > 0 && (static_cast<unsigned char>(longest->text[keep]) & 0xC0) == 0x80) --keep;
        longest->text.resize(keep);
        bytes -= before - WireBytes(*longest);
    }
}

DbTimestamp FromOdbc(const SQL_TIMESTAMP_STRUCT& ts) {
    DbTimestamp t;
    t.year = ts.year;
    t.month = ts.month;
    t.day = ts.day;
    t.hour = ts.hour;
    t.minute = ts.minute;
    t.second = ts.second;
    t.fraction = ts.fraction;
    return t;
}

SQL_TIMESTAMP_STRUCT ToOdbc(const DbTimestamp& t) {
    SQL_TIMESTAMP_STRUCT ts{};
    ts.year = static_cast<SQLSMALLINT>(t.year);
    ts.month = static_cast<SQLUSMALLINT>(t.month);
    ts.day = static_cast<SQLUSMALLINT>(t.day);
    ts.hour = static_cast<SQLUSMALLINT>(t.hour);
    ts.minute = static_cast<SQLUSMALLINT>(t.minute);
    ts.second = static_cast<SQLUSMALLINT>(t.second);
    ts.fraction = t.fraction;
    return ts;
}

// A parameter bound to a statement: its storage must stay put until the
// statement has run, hence a deque of these.
struct Bound {
    SQLSMALLINT io = SQL_PARAM_INPUT;
    SQLSMALLINT cType = SQL_C_CHAR;
    SQLSMALLINT sqlType = SQL_VARCHAR;
    SQLULEN columnSize = 0;
    SQLINTEGER longValue = 0;
    SQLBIGINT bigValue = 0;
    double doubleValue = 0;
    SQL_TIMESTAMP_STRUCT timestamp{};
    std::vector<char> text;
    SQLLEN indicator = 0;
};

SQLRETURN BindOne(SQLHSTMT stmt, SQLUSMALLINT position, SQLSMALLINT io, const DbValue& v, Bound& b) {
    b.io = io;
    SQLPOINTER data = nullptr;
    SQLLEN bufferLength = 0;
    switch (v.kind) {
    case DbValue::Kind::Integer:
        b.cType = SQL_C_SLONG, b.sqlType = SQL_INTEGER, b.columnSize = 10;
        b.longValue = static_cast<SQLINTEGER>(v.integer);
        data = &b.longValue;
        break;
    case DbValue::Kind::BigInt:
        b.cType = SQL_C_SBIGINT, b.sqlType = SQL_BIGINT, b.columnSize = 19;
        b.bigValue = v.integer;
        data = &b.bigValue;
        break;
    case DbValue::Kind::Double:
        b.cType = SQL_C_DOUBLE, b.sqlType = SQL_DOUBLE, b.columnSize = 15;
        b.doubleValue = v.real;
        data = &b.doubleValue;
        break;
    case DbValue::Kind::Timestamp:
        b.cType = SQL_C_TYPE_TIMESTAMP, b.sqlType = SQL_TYPE_TIMESTAMP, b.columnSize = 19;
        b.timestamp = ToOdbc(v.timestamp);
        data = &b.timestamp;
        break;
    case DbValue::Kind::Text: {
        b.cType = SQL_C_CHAR, b.sqlType = SQL_VARCHAR;
        const std::size_t room = io == SQL_PARAM_INPUT ? v.text.size() + 1
                                                       : std::max(v.text.size() + 1, kOutTextBytes);
        b.text.assign(room, '\0');
        std::memcpy(b.text.data(), v.text.data(), v.text.size());
        b.columnSize = std::max<SQLULEN>(1, io == SQL_PARAM_INPUT ? v.text.size() : room - 1);
        data = b.text.data();
        bufferLength = static_cast<SQLLEN>(room);
        break;
    }
    }
    b.indicator = v.null ? SQL_NULL_DATA
                         : (v.kind == DbValue::Kind::Text ? static_cast<SQLLEN>(v.text.size()) : 0);
    return SQLBindParameter(stmt, position, io, b.cType, b.sqlType, b.columnSize, 0, data, bufferLength,
                            &b.indicator);
}

// The value of an OUT or IN/OUT parameter after the call.
DbValue ReadBack(const DbValue& declared, const Bound& b) {
    DbValue v;
    v.kind = declared.kind;
    v.null = b.indicator == SQL_NULL_DATA;
    if (v.null) return v;
    switch (v.kind) {
    case DbValue::Kind::Integer: v.integer = b.longValue; break;
    case DbValue::Kind::BigInt: v.integer = b.bigValue; break;
    case DbValue::Kind::Double: v.real = b.doubleValue; break;
    case DbValue::Kind::Timestamp: v.timestamp = FromOdbc(b.timestamp); break;
    case DbValue::Kind::Text: {
        std::size_t n = b.indicator >= 0 ? static_cast<std::size_t>(b.indicator) : 0;
        if (b.indicator == SQL_NTS) n = std::strlen(b.text.data());
        n = std::min(n, b.text.size() - 1);
        v.text.assign(b.text.data(), n);
        break;
    }
    }
    return v;
}

// Reads column of the current row of stmt into v, as v.kind says.
SQLRETURN ReadValue(SQLHSTMT stmt, SQLUSMALLINT column, DbValue& v) {
    SQLLEN indicator = 0;
    SQLRETURN r = SQL_SUCCESS;
    switch (v.kind) {
    case DbValue::Kind::Integer:
    case DbValue::Kind::BigInt: {
        // Read 64 bits whatever the declared width (SQLite keeps 64-bit
        // integers in INTEGER columns); sent as 32 bits when they fit.
        SQLBIGINT n = 0;
        r = SQLGetData(stmt, column, SQL_C_SBIGINT, &n, sizeof(n), &indicator);
        v.integer = n;
        if (v.kind == DbValue::Kind::Integer &&
            (n < std::numeric_limits<std::int32_t>::min() || n > std::numeric_limits<std::int32_t>::max())) {
            v.kind = DbValue::Kind::BigInt;
        }
        break;
    }
    case DbValue::Kind::Double:
        r = SQLGetData(stmt, column, SQL_C_DOUBLE, &v.real, sizeof(v.real), &indicator);
        break;
    case DbValue::Kind::Timestamp: {
        SQL_TIMESTAMP_STRUCT ts{};
        r = SQLGetData(stmt, column, SQL_C_TYPE_TIMESTAMP, &ts, sizeof(ts), &indicator);
        v.timestamp = FromOdbc(ts);
        break;
    }
    case DbValue::Kind::Text: {
        char chunk[4096];
        for (;;) {
            r = SQLGetData(stmt, column, SQL_C_CHAR, chunk, sizeof(chunk), &indicator);
            if (r == SQL_NO_DATA) {
                r = SQL_SUCCESS;
                break;
            }
            if (!SQL_SUCCEEDED(r) || indicator == SQL_NULL_DATA) break;
            const std::size_t got = (indicator == SQL_NO_TOTAL || indicator >= static_cast<SQLLEN>(sizeof(chunk)))
                                        ? sizeof(chunk) - 1
                                        : static_cast<std::size_t>(indicator);
            if (v.text.size() < kMaxTextBytes) v.text.append(chunk, got);
            if (r == SQL_SUCCESS) break;
        }
        break;
    }
    }
    v.null = indicator == SQL_NULL_DATA;
    if (v.null) v.text.clear();
    return r;
}

}  // namespace

std::string FindSqliteDriver() {
    static const char* const kPlaces[] = {
        "/usr/lib/x86_64-linux-gnu/odbc/libsqlite3odbc.so",
        "/usr/lib/aarch64-linux-gnu/odbc/libsqlite3odbc.so",
        "/usr/lib/i386-linux-gnu/odbc/libsqlite3odbc.so",
        "/usr/lib/arm-linux-gnueabihf/odbc/libsqlite3odbc.so",
        "/usr/lib/odbc/libsqlite3odbc.so",
        "/usr/lib64/libsqlite3odbc.so",
        "/usr/lib/libsqlite3odbc.so",
        "/usr/local/lib/libsqlite3odbc.so",
    };
    for (const char* place : kPlaces) {
        std::ifstream probe(place);
        if (probe.good()) return place;
    }
    return std::string();
}

std::string SqliteConnectionString(const std::string& driverPath, const std::string& file) {
    // Timeout: how long a writer waits for another connection's lock (ms),
    // since every logical connection has a connection of its own to the file.
    return "DRIVER=" + driverPath + ";Database=" + file + ";Timeout=10000;";
}

// A column of a select bound to buffers of a rowset's values.
struct OdbcBoundColumn {
    DbValue::Kind kind = DbValue::Kind::Text;
    SQLSMALLINT cType = SQL_C_CHAR;
    SQLLEN width = 0;          // bytes of one value in data
    std::vector<char> data;    // the rowset's values
    std::vector<SQLLEN> indicator;
};

// An open select. Rows come a rowset at a time into column-wise bound
// buffers when the select has no text column, or when its static cursor can
// go back, so that a rowset whose texts did not fit their buffers is read
// again with larger ones; otherwise one at a time through SQLGetData.
struct OdbcConnexion::Cursor {
    using Column = OdbcBoundColumn;
    SQLHSTMT stmt = SQL_NULL_HSTMT;
    std::vector<DbValue::Kind> kinds;
    bool rowsets = false;
    std::vector<Column> columns;
    std::vector<SQLUSMALLINT> status;
    SQLULEN rowsetSize = 1;
    SQLULEN fetched = 0;           // rows of the current rowset
    SQLULEN next = 0;              // the next of them to hand out
    SQLLEN rowsetStart = 1;        // position of the rowset's first row in the result, from 1
    bool end = false;              // the database has no row after the current rowset
};

struct OdbcConnexion::Prepared {
    std::string sql;
    SQLHSTMT stmt = SQL_NULL_HSTMT;
    unsigned long long lastUse = 0;
};

OdbcConnexion::OdbcConnexion()
    : dbc_(nullptr), selectStmt_(nullptr), cursor_(nullptr), useClock_(0), selectColumns_(0), broken_(false),
      postgres_(false) {}

OdbcConnexion::~OdbcConnexion() { Close(); }

bool OdbcConnexion::Open(const std::string& connectionString) {
    Close();
    SQLHENV env = Environment();
    if (env == SQL_NULL_HENV) {
        lastError_ = "ODBC environment could not be created";
        return false;
    }
    SQLHDBC dbc = SQL_NULL_HDBC;
    if (!SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_DBC, env, &dbc))) {
        KeepDiagnostic(SQL_HANDLE_ENV, env, "SQLAllocHandle");
        return false;
    }
    SQLCHAR out[1024];
    SQLSMALLINT outLength = 0;
    SQLRETURN r = SQLDriverConnect(dbc, nullptr, Sql(connectionString), SQL_NTS, out, sizeof(out),
                                   &outLength, SQL_DRIVER_NOPROMPT);
    if (!SQL_SUCCEEDED(r)) {
        KeepDiagnostic(SQL_HANDLE_DBC, dbc, "SQLDriverConnect");
        SQLFreeHandle(SQL_HANDLE_DBC, dbc);
        return false;
    }
    dbc_ = dbc;
    char dbms[64] = {};
    SQLSMALLINT dbmsLength = 0;
    postgres_ = SQL_SUCCEEDED(SQLGetInfo(dbc, SQL_DBMS_NAME, dbms, sizeof(dbms), &dbmsLength)) &&
                std::strcmp(dbms, "PostgreSQL") == 0;
    return true;
}

bool OdbcConnexion::IsOpen() const { return dbc_ != nullptr; }

void OdbcConnexion::Close() {
    CloseSelect();
    FreeStatement(selectStmt_);
    selectStmt_ = nullptr;
    while (!prepared_.empty()) ForgetPrepared(prepared_.back());
    if (dbc_) {
        SQLDisconnect(static_cast<SQLHDBC>(dbc_));
        SQLFreeHandle(SQL_HANDLE_DBC, static_cast<SQLHDBC>(dbc_));
        dbc_ = nullptr;
    }
    broken_ = false;
}

void OdbcConnexion::KeepDiagnostic(short handleType, void* handle, const char* what) {
    std::string text;
    for (SQLSMALLINT i = 1; i <= 20; ++i) {
        SQLCHAR state[6] = {};
        SQLINTEGER native = 0;
        SQLCHAR message[SQL_MAX_MESSAGE_LENGTH + 1] = {};
        SQLSMALLINT length = 0;
        SQLRETURN r = SQLGetDiagRec(handleType, handle, i, state, &native, message, sizeof(message),
                                    &length);
        if (!SQL_SUCCEEDED(r)) break;
        if (state[0] == '0' && state[1] == '8' && handleType != SQL_HANDLE_ENV) broken_ = dbc_ != nullptr;
        if (!text.empty()) text += '\n';
        text += '[';
        text += reinterpret_cast<const char*>(state);
        text += "] ";
        text += reinterpret_cast<const char*>(message);
    }
    if (text.empty()) text = std::string(what) + " failed without diagnostic";
    lastError_ = text;
    ServiceLog(2, "ODBC %s: %s", what, text.c_str());
}

void* OdbcConnexion::NewStatement() {
    if (!dbc_) {
        lastError_ = "no database connection";
        return nullptr;
    }
    SQLHSTMT stmt = SQL_NULL_HSTMT;
    if (!SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_STMT, static_cast<SQLHDBC>(dbc_), &stmt))) {
        KeepDiagnostic(SQL_HANDLE_DBC, dbc_, "SQLAllocHandle");
        return nullptr;
    }
    return stmt;
}

namespace {

void CloseAndFree(void* stmt) {
    if (!stmt) return;
    // Closed before it is freed: psqlODBC (13.02) leaks a few hundred bytes
    // when a statement whose execution failed is freed without being closed.
    SQLFreeStmt(static_cast<SQLHSTMT>(stmt), SQL_CLOSE);
    SQLFreeHandle(SQL_HANDLE_STMT, static_cast<SQLHSTMT>(stmt));
}

}  // namespace

void OdbcConnexion::FreeStatement(void* stmt) { CloseAndFree(stmt); }

namespace {

// Frees a statement handle at the end of a scope.
struct StatementGuard {
    void* stmt;
    ~StatementGuard() { CloseAndFree(stmt); }
};

long long RowCount(SQLHSTMT stmt) {
    SQLLEN rows = -1;
    if (!SQL_SUCCEEDED(SQLRowCount(stmt, &rows))) return -1;
    return static_cast<long long>(rows);
}

// SQL_NO_DATA is what a searched UPDATE or DELETE that touched no row returns.
bool Ran(SQLRETURN r) { return SQL_SUCCEEDED(r) || r == SQL_NO_DATA; }

}  // namespace

namespace {

// Statements kept prepared per connection: enough for the handful of
// statements an application repeats, few enough that a connection holds
// little on the database's side.
constexpr std::size_t kMaxPrepared = 32;

}  // namespace

OdbcConnexion::Prepared* OdbcConnexion::PreparedStatement(const std::string& sql) {
    ++useClock_;
    Prepared* oldest = nullptr;
    for (Prepared* p : prepared_) {
        if (p->sql == sql) {
            p->lastUse = useClock_;
            return p;
        }
        if (!oldest || p->lastUse < oldest->lastUse) oldest = p;
    }
    Prepared* p = oldest;
    if (prepared_.size() < kMaxPrepared || !p) {
        SQLHSTMT stmt = static_cast<SQLHSTMT>(NewStatement());
        if (!stmt) return nullptr;
        p = new Prepared;
        p->stmt = stmt;
        prepared_.push_back(p);
    } else {
        // The least recently used gives its handle: preparing replaces its statement.
        SQLFreeStmt(p->stmt, SQL_CLOSE);
    }
    p->sql = sql;
    p->lastUse = useClock_;
    if (!SQL_SUCCEEDED(SQLPrepare(p->stmt, Sql(sql), SqlLength(sql)))) {
        KeepDiagnostic(SQL_HANDLE_STMT, p->stmt, "SQLPrepare");
        ForgetPrepared(p);
        return nullptr;
    }
    return p;
}

void OdbcConnexion::ForgetPrepared(Prepared* p) {
    prepared_.erase(std::find(prepared_.begin(), prepared_.end(), p));
    FreeStatement(p->stmt);
    delete p;
}

bool OdbcConnexion::Execute(const std::string& sql, long long* rowCount) {
    Prepared* p = PreparedStatement(sql);
    if (!p) return false;
    SQLRETURN r = SQLExecute(p->stmt);
    if (!Ran(r)) {
        // Prepared afresh next time: what failed may be the statement kept.
        KeepDiagnostic(SQL_HANDLE_STMT, p->stmt, "SQLExecute");
        ForgetPrepared(p);
        return false;
    }
    *rowCount = r == SQL_NO_DATA ? 0 : RowCount(p->stmt);
    // A statement that returned rows keeps its cursor open until closed.
    SQLSMALLINT columns = 0;
    if (r != SQL_NO_DATA && SQL_SUCCEEDED(SQLNumResultCols(p->stmt, &columns)) && columns > 0)
        SQLFreeStmt(p->stmt, SQL_CLOSE);
    return true;
}

bool OdbcConnexion::ExecuteBind(const std::string& sql, const std::vector<DbValue>& params,
                                long long* rowCount) {
    StatementGuard g{NewStatement()};
    if (!g.stmt) return false;
    SQLHSTMT stmt = static_cast<SQLHSTMT>(g.stmt);
    if (!SQL_SUCCEEDED(SQLPrepare(stmt, Sql(sql), SqlLength(sql)))) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLPrepare");
        return false;
    }
    std::deque<Bound> bound(params.size());
    for (std::size_t i = 0; i < params.size(); ++i) {
        if (!SQL_SUCCEEDED(BindOne(stmt, static_cast<SQLUSMALLINT>(i + 1), SQL_PARAM_INPUT, params[i],
                                   bound[i]))) {
            KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLBindParameter");
            return false;
        }
    }
    SQLRETURN r = SQLExecute(stmt);
    if (!Ran(r)) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLExecute");
        return false;
    }
    *rowCount = r == SQL_NO_DATA ? 0 : RowCount(stmt);
    return true;
}

bool OdbcConnexion::CallProcedure(const std::string& name, std::vector<DbProcParam>& params) {
    if (postgres_) {
        // Its driver turns {CALL} into a select from a function, which a
        // procedure is not.
        bool procedure = false;
        if (!IsPostgresProcedure(name, &procedure)) return false;
        return CallPostgres(name, procedure, params);
    }
    StatementGuard g{NewStatement()};
    if (!g.stmt) return false;
    SQLHSTMT stmt = static_cast<SQLHSTMT>(g.stmt);
    std::string call = "{CALL " + name + "(";
    for (std::size_t i = 0; i < params.size(); ++i) call += i ? ", ?" : "?";
    call += ")}";
    if (!SQL_SUCCEEDED(SQLPrepare(stmt, Sql(call), SqlLength(call)))) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLPrepare");
        return false;
    }
    std::deque<Bound> bound(params.size());
    for (std::size_t i = 0; i < params.size(); ++i) {
        const SQLSMALLINT io = params[i].direction == DbDirection::In      ? SQL_PARAM_INPUT
                               : params[i].direction == DbDirection::InOut ? SQL_PARAM_INPUT_OUTPUT
                                                                           : SQL_PARAM_OUTPUT;
        if (!SQL_SUCCEEDED(BindOne(stmt, static_cast<SQLUSMALLINT>(i + 1), io, params[i].value, bound[i]))) {
            KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLBindParameter");
            return false;
        }
    }
    SQLRETURN r = SQLExecute(stmt);
    if (!Ran(r)) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLExecute");
        return false;
    }
    // Some drivers fill the OUT parameters only once every result set of the
    // call has been passed over.
    for (int guard = 0; guard < 64; ++guard) {
        r = SQLMoreResults(stmt);
        if (r == SQL_NO_DATA) break;
        if (!SQL_SUCCEEDED(r)) {
            KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLMoreResults");
            return false;
        }
    }
    for (std::size_t i = 0; i < params.size(); ++i) {
        if (params[i].direction != DbDirection::In) params[i].value = ReadBack(params[i].value, bound[i]);
    }
    return true;
}

namespace {

// The parts of a PostgreSQL name (schema.name): unquoted parts fold to
// lower case, quoted ones keep their case and lose their quotes.
std::vector<std::string> PostgresNameParts(const std::string& name) {
    std::vector<std::string> parts(1);
    bool quoted = false;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        if (c == '"') {
            if (quoted && i + 1 < name.size() && name[i + 1] == '"') {
                parts.back() += '"';
                ++i;
            } else {
                quoted = !quoted;
            }
        } else if (c == '.' && !quoted) {
            parts.emplace_back();
        } else {
            parts.back() += quoted ? c : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    return parts;
}

DbValue TextValue(const std::string& text) {
    DbValue v;
    v.null = false;
    v.text = text;
    return v;
}

}  // namespace

bool OdbcConnexion::IsPostgresProcedure(const std::string& name, bool* procedure) {
    *procedure = false;
    const std::vector<std::string> parts = PostgresNameParts(name);
    std::string sql = "SELECT count(*) FROM pg_catalog.pg_proc p JOIN pg_catalog.pg_namespace n "
                      "ON n.oid = p.pronamespace WHERE p.prokind = 'p' AND p.proname = ? AND ";
    sql += parts.size() > 1 ? "n.nspname = ?" : "pg_catalog.pg_function_is_visible(p.oid)";
    StatementGuard g{NewStatement()};
    if (!g.stmt) return false;
    SQLHSTMT stmt = static_cast<SQLHSTMT>(g.stmt);
    std::deque<Bound> bound(2);
    const DbValue procName = TextValue(parts.back());
    const DbValue schema = TextValue(parts.front());
    if (!SQL_SUCCEEDED(SQLPrepare(stmt, Sql(sql), SqlLength(sql))) ||
        !SQL_SUCCEEDED(BindOne(stmt, 1, SQL_PARAM_INPUT, procName, bound[0])) ||
        (parts.size() > 1 && !SQL_SUCCEEDED(BindOne(stmt, 2, SQL_PARAM_INPUT, schema, bound[1])))) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLPrepare");
        return false;
    }
    DbValue count;
    count.kind = DbValue::Kind::BigInt;
    if (!SQL_SUCCEEDED(SQLExecute(stmt)) || !SQL_SUCCEEDED(SQLFetch(stmt)) ||
        !SQL_SUCCEEDED(ReadValue(stmt, 1, count))) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "catalog of procedures");
        return false;
    }
    *procedure = count.integer > 0;
    return true;
}

bool OdbcConnexion::CallPostgres(const std::string& name, bool procedure, std::vector<DbProcParam>& params) {
    // The IN and IN/OUT values are sent; the IN/OUT and OUT values come back
    // as the columns of the row that the call returns (a function's own
    // return value being its only column). A procedure takes its OUT
    // arguments too, as NULL.
    std::string call = (procedure ? "CALL " : "SELECT * FROM ") + name + "(";
    std::vector<const DbValue*> inputs;
    for (const DbProcParam& p : params) {
        if (p.direction == DbDirection::Out && !procedure) continue;
        if (call.back() != '(') call += ", ";
        if (p.direction == DbDirection::Out) {
            call += "NULL";
        } else {
            call += "?";
            inputs.push_back(&p.value);
        }
    }
    call += ")";
    StatementGuard g{NewStatement()};
    if (!g.stmt) return false;
    SQLHSTMT stmt = static_cast<SQLHSTMT>(g.stmt);
    if (!SQL_SUCCEEDED(SQLPrepare(stmt, Sql(call), SqlLength(call)))) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLPrepare");
        return false;
    }
    std::deque<Bound> bound(inputs.size());
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        if (!SQL_SUCCEEDED(BindOne(stmt, static_cast<SQLUSMALLINT>(i + 1), SQL_PARAM_INPUT, *inputs[i], bound[i]))) {
            KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLBindParameter");
            return false;
        }
    }
    if (!Ran(SQLExecute(stmt))) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLExecute");
        return false;
    }
    SQLSMALLINT columns = 0;
    if (!SQL_SUCCEEDED(SQLNumResultCols(stmt, &columns)) || columns <= 0) return true;
    const SQLRETURN fetched = SQLFetch(stmt);
    if (fetched == SQL_NO_DATA) return true;  // no row: the OUT values stay NULL
    if (!SQL_SUCCEEDED(fetched)) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLFetch");
        return false;
    }
    SQLUSMALLINT column = 1;
    for (DbProcParam& p : params) {
        if (p.direction == DbDirection::In) continue;
        if (column > columns) break;
        DbValue v;
        v.kind = p.value.kind;
        if (!SQL_SUCCEEDED(ReadValue(stmt, column++, v))) {
            KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLGetData");
            return false;
        }
        // A 32-bit parameter keeps its type even when the column is wider.
        if (p.value.kind == DbValue::Kind::Integer) v.kind = DbValue::Kind::Integer;
        p.value = v;
    }
    return true;
}

namespace {

// A rowset's bound buffers take about this much at most: a handful of rows
// for a select of long texts, many for one of numbers.
constexpr std::size_t kRowsetBytes = 1 << 20;
// Rows of a rowset at most: past this, a larger rowset saves the service
// nothing measurable.
constexpr SQLULEN kMaxRowset = 256;
// Bytes bound for a text value at first: four a character of the column's
// declared size (UTF-8), within these bounds. A longer value makes its column
// larger and its rowset read again.
constexpr SQLLEN kMinTextWidth = 64;
constexpr SQLLEN kFirstTextWidthMax = 4096;
// Text beyond this many bytes is never sent (see kMaxTextBytes).
constexpr SQLLEN kMaxTextWidth = static_cast<SQLLEN>(kMaxTextBytes) + 1;

SQLLEN FixedWidth(DbValue::Kind kind) {
    switch (kind) {
    case DbValue::Kind::Integer:
    case DbValue::Kind::BigInt: return sizeof(SQLBIGINT);
    case DbValue::Kind::Double: return sizeof(double);
    case DbValue::Kind::Timestamp: return sizeof(SQL_TIMESTAMP_STRUCT);
    case DbValue::Kind::Text: break;
    }
    return 0;
}

SQLSMALLINT CTypeOf(DbValue::Kind kind) {
    switch (kind) {
    case DbValue::Kind::Integer:
    case DbValue::Kind::BigInt: return SQL_C_SBIGINT;
    case DbValue::Kind::Double: return SQL_C_DOUBLE;
    case DbValue::Kind::Timestamp: return SQL_C_TYPE_TIMESTAMP;
    case DbValue::Kind::Text: break;
    }
    return SQL_C_CHAR;
}

// A bound text whose value did not fit: the width it needs (capped), or 0.
SQLLEN WidthNeeded(SQLLEN indicator, SQLLEN width) {
    if (indicator == SQL_NULL_DATA || (indicator >= 0 && indicator < width)) return 0;
    if (width >= kMaxTextWidth) return 0;  // cut where a text is cut anyway
    const SQLLEN wanted = indicator == SQL_NO_TOTAL ? 2 * width : indicator + 1;
    return std::min(wanted, kMaxTextWidth);
}

// Row i of a bound column as a value.
DbValue BoundValue(const OdbcBoundColumn& col, SQLULEN i) {
    DbValue v;
    v.kind = col.kind;
    v.null = col.indicator[i] == SQL_NULL_DATA;
    if (v.null) return v;
    const char* data = col.data.data() + static_cast<std::size_t>(col.width) * i;
    switch (col.kind) {
    case DbValue::Kind::Integer:
    case DbValue::Kind::BigInt: {
        SQLBIGINT n;
        std::memcpy(&n, data, sizeof n);
        v.integer = n;
        // Read as 64 bits whatever the declared width; sent as 32 bits when
        // they fit.
        if (n < std::numeric_limits<std::int32_t>::min() || n > std::numeric_limits<std::int32_t>::max())
            v.kind = DbValue::Kind::BigInt;
        break;
    }
    case DbValue::Kind::Double: std::memcpy(&v.real, data, sizeof v.real); break;
    case DbValue::Kind::Timestamp: {
        SQL_TIMESTAMP_STRUCT ts;
        std::memcpy(&ts, data, sizeof ts);
        v.timestamp = FromOdbc(ts);
        break;
    }
    case DbValue::Kind::Text:
        v.text.assign(data, static_cast<std::size_t>(std::min(col.indicator[i], col.width - 1)));
        break;
    }
    return v;
}

// Row i of a bound column handed to sink.
void EmitBound(const OdbcBoundColumn& col, SQLULEN i, DbCellSink& sink) {
    const SQLLEN ind = col.indicator[i];
    const char* data = col.data.data() + static_cast<std::size_t>(col.width) * i;
    if (ind == SQL_NULL_DATA) return sink.Null(col.kind);
    switch (col.kind) {
    case DbValue::Kind::Integer:
    case DbValue::Kind::BigInt: {
        SQLBIGINT n;
        std::memcpy(&n, data, sizeof n);
        if (n < std::numeric_limits<std::int32_t>::min() || n > std::numeric_limits<std::int32_t>::max())
            return sink.BigInt(n);
        return col.kind == DbValue::Kind::Integer ? sink.Integer(n) : sink.BigInt(n);
    }
    case DbValue::Kind::Double: {
        double d;
        std::memcpy(&d, data, sizeof d);
        return sink.Double(d);
    }
    case DbValue::Kind::Timestamp: {
        SQL_TIMESTAMP_STRUCT ts;
        std::memcpy(&ts, data, sizeof ts);
        return sink.Timestamp(FromOdbc(ts));
    }
    case DbValue::Kind::Text: return sink.Text(data, static_cast<std::size_t>(std::min(ind, col.width - 1)));
    }
}

// SQLFetchScroll's success, with no row in error.
bool RowsetRead(SQLRETURN r, const std::vector<SQLUSMALLINT>& status, SQLULEN fetched) {
    if (!SQL_SUCCEEDED(r)) return false;
    for (SQLULEN i = 0; i < fetched; ++i) {
        if (status[i] == SQL_ROW_ERROR) return false;
    }
    return true;
}

}  // namespace

bool OdbcConnexion::OpenSelect(const std::string& sql, int* columns, long long* rowCount) {
    CloseSelect();
    *rowCount = -1;
    if (!selectStmt_) selectStmt_ = NewStatement();
    SQLHSTMT stmt = static_cast<SQLHSTMT>(selectStmt_);
    if (!stmt) return false;
    // A static cursor lets a rowset be read again; where the driver cannot
    // give one, the rows come one at a time. (The SQLite driver reads the
    // whole result at execution in either case; its mode that reads as
    // SQLite steps would keep the file locked while a client takes its time,
    // and types the columns of expressions as text.)
    SQLFreeStmt(stmt, SQL_UNBIND);
    SQLSetStmtAttr(stmt, SQL_ATTR_ROW_ARRAY_SIZE, reinterpret_cast<SQLPOINTER>(1), 0);
    SQLSetStmtAttr(stmt, SQL_ATTR_CURSOR_TYPE, reinterpret_cast<SQLPOINTER>(SQL_CURSOR_STATIC), 0);
    SQLRETURN r = SQLExecDirect(stmt, Sql(sql), SqlLength(sql));
    if (!Ran(r)) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLExecDirect");
        SQLFreeStmt(stmt, SQL_CLOSE);
        return false;
    }
    SQLSMALLINT count = 0;
    if (r == SQL_NO_DATA || !SQL_SUCCEEDED(SQLNumResultCols(stmt, &count)) || count <= 0) {
        *rowCount = r == SQL_NO_DATA ? 0 : RowCount(stmt);
        SQLFreeStmt(stmt, SQL_CLOSE);
        *columns = 0;
        return true;
    }
    auto* cursor = new Cursor;
    cursor->stmt = stmt;
    bool texts = false;
    for (SQLSMALLINT c = 1; c <= count; ++c) {
        SQLCHAR name[256];
        SQLSMALLINT nameLength = 0, type = 0, digits = 0, nullable = 0;
        SQLULEN size = 0;
        if (!SQL_SUCCEEDED(SQLDescribeCol(stmt, static_cast<SQLUSMALLINT>(c), name, sizeof(name), &nameLength,
                                          &type, &size, &digits, &nullable))) {
            type = SQL_VARCHAR;
        }
        Cursor::Column column;
        column.kind = KindOfColumn(type);
        column.cType = CTypeOf(column.kind);
        column.width = FixedWidth(column.kind);
        if (column.kind == DbValue::Kind::Text) {
            texts = true;
            const SQLULEN declared = std::min<SQLULEN>(size, kFirstTextWidthMax / 4);
            column.width = std::max<SQLLEN>(kMinTextWidth, static_cast<SQLLEN>(declared) * 4 + 1);
        }
        cursor->kinds.push_back(column.kind);
        cursor->columns.push_back(std::move(column));
    }
    SQLULEN cursorType = SQL_CURSOR_FORWARD_ONLY;
    SQLUINTEGER staticOps = 0;
    SQLGetStmtAttr(stmt, SQL_ATTR_CURSOR_TYPE, &cursorType, 0, nullptr);
    SQLGetInfo(static_cast<SQLHDBC>(dbc_), SQL_STATIC_CURSOR_ATTRIBUTES1, &staticOps, sizeof(staticOps), nullptr);
    cursor->rowsets = !texts || (cursorType == SQL_CURSOR_STATIC && (staticOps & SQL_CA1_ABSOLUTE) != 0);
    SQLSetStmtAttr(stmt, SQL_ATTR_ROWS_FETCHED_PTR, &cursor->fetched, 0);
    cursor_ = cursor;
    selectColumns_ = count;
    *columns = count;
    return true;
}

void OdbcConnexion::CloseSelect() {
    if (cursor_) {
        SQLFreeStmt(cursor_->stmt, SQL_CLOSE);
        SQLFreeStmt(cursor_->stmt, SQL_UNBIND);
        SQLSetStmtAttr(cursor_->stmt, SQL_ATTR_ROWS_FETCHED_PTR, nullptr, 0);
        SQLSetStmtAttr(cursor_->stmt, SQL_ATTR_ROW_STATUS_PTR, nullptr, 0);
        delete cursor_;
        cursor_ = nullptr;
    }
    selectColumns_ = 0;
}

bool OdbcConnexion::HasRows() const { return cursor_ && !(cursor_->end && cursor_->next == cursor_->fetched); }

int OdbcConnexion::Buffered() const {
    return cursor_ && cursor_->rowsets ? static_cast<int>(cursor_->fetched - cursor_->next) : 0;
}

bool OdbcConnexion::FetchRowset() {
    Cursor& c = *cursor_;
    SQLHSTMT stmt = c.stmt;
    c.rowsetStart += static_cast<SQLLEN>(c.fetched);
    // Sized, and bound again, whenever a column has changed its width.
    auto bind = [&]() {
        std::size_t rowBytes = 0;
        for (const Cursor::Column& col : c.columns) rowBytes += static_cast<std::size_t>(col.width) + sizeof(SQLLEN);
        c.rowsetSize = std::max<SQLULEN>(1, std::min<SQLULEN>(kMaxRowset, kRowsetBytes / rowBytes));
        c.status.assign(c.rowsetSize, SQL_ROW_NOROW);
        SQLSetStmtAttr(stmt, SQL_ATTR_ROW_BIND_TYPE, reinterpret_cast<SQLPOINTER>(SQL_BIND_BY_COLUMN), 0);
        SQLSetStmtAttr(stmt, SQL_ATTR_ROW_ARRAY_SIZE, reinterpret_cast<SQLPOINTER>(c.rowsetSize), 0);
        SQLSetStmtAttr(stmt, SQL_ATTR_ROW_STATUS_PTR, c.status.data(), 0);
        for (std::size_t i = 0; i < c.columns.size(); ++i) {
            Cursor::Column& col = c.columns[i];
            col.data.resize(static_cast<std::size_t>(col.width) * c.rowsetSize);
            col.indicator.resize(c.rowsetSize);
            if (!SQL_SUCCEEDED(SQLBindCol(stmt, static_cast<SQLUSMALLINT>(i + 1), col.cType, col.data.data(),
                                          col.width, col.indicator.data()))) {
                KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLBindCol");
                return false;
            }
        }
        return true;
    };
    if (c.status.empty() && !bind()) return false;
    SQLRETURN r = SQLFetchScroll(stmt, SQL_FETCH_NEXT, 0);
    for (;;) {
        if (r == SQL_NO_DATA) {
            c.fetched = 0;
            c.next = 0;
            c.end = true;
            return true;
        }
        if (!RowsetRead(r, c.status, c.fetched)) {
            KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLFetchScroll");
            return false;
        }
        bool larger = false;
        for (Cursor::Column& col : c.columns) {
            if (col.kind != DbValue::Kind::Text) continue;
            SQLLEN needed = 0;
            for (SQLULEN i = 0; i < c.fetched; ++i) needed = std::max(needed, WidthNeeded(col.indicator[i], col.width));
            if (needed > col.width) {
                col.width = needed;
                larger = true;
            }
        }
        if (!larger) break;
        // Read the same rows again into larger buffers.
        if (!bind()) return false;
        r = SQLFetchScroll(stmt, SQL_FETCH_ABSOLUTE, c.rowsetStart);
    }
    c.next = 0;
    return true;
}

bool OdbcConnexion::NextRow(std::size_t maxBytes, DbCellSink& sink, bool* row) {
    *row = false;
    if (!HasRows()) return true;
    Cursor& c = *cursor_;
    std::vector<DbValue> cells;
    std::size_t bytes = 0;
    if (!c.rowsets) {
        const SQLRETURN r = SQLFetch(c.stmt);
        if (r == SQL_NO_DATA) {
            c.end = true;
            return true;
        }
        if (!SQL_SUCCEEDED(r)) {
            KeepDiagnostic(SQL_HANDLE_STMT, c.stmt, "SQLFetch");
            CloseSelect();
            return false;
        }
        if (!ReadRow(&cells, &bytes)) {
            CloseSelect();
            return false;
        }
    } else {
        if (c.next == c.fetched && !c.end && !FetchRowset()) {
            CloseSelect();
            return false;
        }
        if (c.next == c.fetched) return true;  // the end; closed by CloseSelect
        const SQLULEN i = c.next++;
        // The wire size as WireBytes counts it, before any cell is handed out.
        for (const Cursor::Column& col : c.columns) {
            const SQLLEN ind = col.indicator[i];
            if (ind == SQL_NULL_DATA) bytes += 3;
            else if (col.kind == DbValue::Kind::Text) bytes += 3 + 2 * std::min<SQLLEN>(std::min(ind, col.width - 1), 32767);
            else bytes += col.kind == DbValue::Kind::Integer ? 7 : col.kind == DbValue::Kind::Timestamp ? 21 : 11;
        }
        if (bytes <= maxBytes) {
            // Straight from the buffers: no value is made on the way.
            for (const Cursor::Column& col : c.columns) EmitBound(col, i, sink);
            sink.EndRow();
            *row = true;
            return true;
        }
        for (const Cursor::Column& col : c.columns) cells.push_back(BoundValue(col, i));
    }
    if (bytes > maxBytes) {
        ServiceLog(1, "a row of %zu bytes is cut to fit in one message", bytes);
        FitRow(cells, bytes, maxBytes);
    }
    for (const DbValue& v : cells) sink.Value(v);
    sink.EndRow();
    *row = true;
    return true;
}

bool OdbcConnexion::ReadRow(std::vector<DbValue>* cells, std::size_t* bytes) {
    SQLHSTMT stmt = static_cast<SQLHSTMT>(cursor_->stmt);
    *bytes = 0;
    for (std::size_t c = 0; c < cursor_->kinds.size(); ++c) {
        DbValue v;
        v.kind = cursor_->kinds[c];
        if (!SQL_SUCCEEDED(ReadValue(stmt, static_cast<SQLUSMALLINT>(c + 1), v))) {
            KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLGetData");
            return false;
        }
        *bytes += WireBytes(v);
        cells->push_back(std::move(v));
    }
    return true;
}

bool OdbcConnexion::TableExists(const std::string& table, bool* exists) {
    *exists = false;
    StatementGuard g{NewStatement()};
    if (!g.stmt) return false;
    SQLHSTMT stmt = static_cast<SQLHSTMT>(g.stmt);
    if (!SQL_SUCCEEDED(SQLTables(stmt, nullptr, 0, nullptr, 0, Sql(table), SQL_NTS, nullptr, 0))) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLTables");
        return false;
    }
    // The name is a search pattern ('_' matches any character): compare.
    while (SQL_SUCCEEDED(SQLFetch(stmt))) {
        char name[512] = {};
        SQLLEN indicator = 0;
        if (SQL_SUCCEEDED(SQLGetData(stmt, 3, SQL_C_CHAR, name, sizeof(name), &indicator)) &&
            indicator != SQL_NULL_DATA && SameName(name, table)) {
            *exists = true;
            break;
        }
    }
    return true;
}

bool OdbcConnexion::Columns(const std::string& table, std::vector<DbColumn>* columns) {
    columns->clear();
    StatementGuard g{NewStatement()};
    if (!g.stmt) return false;
    SQLHSTMT stmt = static_cast<SQLHSTMT>(g.stmt);
    if (!SQL_SUCCEEDED(SQLColumns(stmt, nullptr, 0, nullptr, 0, Sql(table), SQL_NTS, nullptr, 0))) {
        KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLColumns");
        return false;
    }
    for (;;) {
        SQLRETURN r = SQLFetch(stmt);
        if (r == SQL_NO_DATA) break;
        if (!SQL_SUCCEEDED(r)) {
            KeepDiagnostic(SQL_HANDLE_STMT, stmt, "SQLFetch");
            return false;
        }
        char tableName[512] = {}, columnName[512] = {}, typeName[256] = {};
        SQLLEN i1 = 0, i2 = 0, i3 = 0;
        SQLGetData(stmt, 3, SQL_C_CHAR, tableName, sizeof(tableName), &i1);
        SQLGetData(stmt, 4, SQL_C_CHAR, columnName, sizeof(columnName), &i2);
        SQLGetData(stmt, 6, SQL_C_CHAR, typeName, sizeof(typeName), &i3);
        if (i1 == SQL_NULL_DATA || !SameName(tableName, table)) continue;
        DbColumn column;
        column.name = i2 == SQL_NULL_DATA ? "" : columnName;
        column.type = i3 == SQL_NULL_DATA ? "" : typeName;
        columns->push_back(column);
    }
    return true;
}
