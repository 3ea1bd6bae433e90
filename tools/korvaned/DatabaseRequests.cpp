// The database requests of a logical connection's link: each reads its
// parameters, runs on the link's database connection and answers with a
// status (0, or -2 followed by an error code) and its values.
//
// Error codes: -58 for a request whose parameters are not what it takes,
// -56 when the database cannot be reached, -66 when the database refused the
// statement (its diagnostic is kept for GET_ODBC_ERROR_TEXT), -65 for the
// columns of a table that does not exist.
#include <algorithm>
#include <cctype>
#include <climits>
#include <vector>

#include <korvane/KvnDefs.h>

#include "Server.h"
#include "ServiceLog.h"
#include "Session.h"
#include "Values.h"

namespace {

// A message holds at most 50000 values and 256000 bytes of body; a block of
// rows keeps clear of both, leaving room for the values that precede the cells.
constexpr int kMaxBlockValues = 49900;
constexpr std::size_t kMaxBlockBytes = 240000;
// Rows a client may ask for in one block.
constexpr int kMaxRowsAsked = 10000;

int ClampToInt(long long n) {
    if (n > INT_MAX) return INT_MAX;
    if (n < INT_MIN) return INT_MIN;
    return static_cast<int>(n);
}

// The value beside a select's rows tells a result set, even an empty one,
// from a statement that returns none: the result's column count (1 or more);
// for a statement without result set, -1 - the rows it affected, or 0 when
// the database cannot tell them.
int SelectResultat(int columns, long long rowsAffected) {
    if (columns > 0) return columns;
    if (rowsAffected < 0) return 0;
    return ClampToInt(-1 - rowsAffected);
}

// The start of a statement, for the log.
std::string Excerpt(const std::string& sql) {
    return sql.size() <= 120 ? sql : sql.substr(0, 117) + "...";
}

}  // namespace

bool Session::OnDatabaseRequest(CMsgSocket& request) {
    const int fonction = request.GetFonction();
    EncodedAnswer answer;
    if (role_ != Role::Connexion) {
        // A database request on a link that opened no connection.
        ErrorAnswer(answer, fonction, KVN_ERROR_HANDLE_CNX);
        return Send(answer);
    }
    switch (fonction) {
    case KVN_LIBERE_CNX_SELECT:
        // Only acknowledged, never answered.
        EndSelect();
        return true;
    case KVN_GET_ODBC_ERROR_TEXT:
        AnswerErrorText(answer);
        return Send(answer);
    case KVN_EXECUTE:
    case KVN_EXECUTESELECT:
    case KVN_GETLINE:
    case KVN_EXISTTABLE:
    case KVN_EXISTCOLUMN:
    case KVN_GETCOLUMNS:
    case KVN_EXECUTEBIND:
    case KVN_EXECUTEPROC:
    case KVN_REQUETE_METABASE:
        break;
    default:
        // FETCH, GETDATA and the codes that the library never sends.
        ErrorAnswer(answer, fonction, KVN_ERROR_PARAMETER);
        return Send(answer);
    }
    if (!EnsureDatabase()) {
        ErrorAnswer(answer, fonction, KVN_ERROR_ODBC_CONNEXION);
        return Send(answer);
    }
    switch (fonction) {
    case KVN_EXECUTE: AnswerExecute(request, answer); break;
    case KVN_EXECUTESELECT: AnswerExecuteSelect(request, answer); break;
    case KVN_GETLINE: AnswerGetLine(request, answer); break;
    case KVN_EXISTTABLE: AnswerTableExists(request, answer); break;
    case KVN_EXISTCOLUMN: AnswerColumnExists(request, answer); break;
    case KVN_GETCOLUMNS: AnswerColumns(request, answer); break;
    case KVN_EXECUTEBIND: AnswerExecuteBind(request, answer); break;
    case KVN_EXECUTEPROC: AnswerStoredProc(request, answer); break;
    default: AnswerRequete(request, answer); break;
    }
    return Send(answer);
}

bool Session::EnsureDatabase() {
    if (db_->IsBroken()) {
        ServiceLog(1, "connection %d of application %d: database link lost, connecting again", idConnexion_,
                   idApplication_);
        db_->Close();
    }
    if (db_->IsOpen()) return true;
    if (db_->Open(server_.ConnectionString())) return true;
    ServiceLog(0, "connection %d of application %d: database not reachable: %s", idConnexion_,
               idApplication_, db_->LastError().c_str());
    return false;
}

void Session::AnswerExecute(CMsgSocket& request, CMsgSocket& answer) {
    std::string sql;
    if (!ReadText(request, 0, &sql)) return ErrorAnswer(answer, KVN_EXECUTE, KVN_ERROR_PARAMETER);
    if (ServiceLogLevel() >= 2)
        ServiceLog(2, "app %d cnx %d: execute %s", idApplication_, idConnexion_, Excerpt(sql).c_str());
    long long rows = 0;
    if (!db_->Execute(sql, &rows)) return ErrorAnswer(answer, KVN_EXECUTE, KVN_ERROR_ODBC);
    StartAnswer(answer, KVN_EXECUTE);
    AddLong(answer, KVN_NO_ERROR);
    AddLong(answer, ClampToInt(rows));  // rows affected
}

// ---- Selects ---------------------------------------------------------------------
//
// The rows of a select are encoded as they are read (WireRows) and wait in
// rows_ until a block takes them. Once a block has gone, the next one is made
// ready while the link is quiet, one rowset at a time (PrepareNextBlock), so
// that the GETLINE which asks for it finds it waiting and a request that
// arrives meanwhile is served at once.

int Session::BlockRows(int asked) const {
    int rows = asked > 0 ? std::min(asked, kMaxRowsAsked) : server_.Options().blockRows;
    if (selectColumns_ > 0) rows = std::max(1, std::min(rows, kMaxBlockValues / selectColumns_));
    return rows;
}

bool Session::FillRows(int wanted, int rowsets) {
    int fetches = 0;
    // Past a message's bytes, a row more only tells that another block follows.
    while (db_->HasRows() && rows_.Rows() < wanted && rows_.BytesOf(rows_.Rows()) <= kMaxBlockBytes) {
        if (db_->Buffered() == 0 && rowsets > 0 && fetches++ >= rowsets) break;
        bool row = false;
        if (!db_->NextRow(kMaxBlockBytes, rows_, &row)) return false;
    }
    return true;
}

void Session::PrepareNextBlock() {
    if (!db_->HasRows()) {
        // All read: what the driver holds of the select is freed now that
        // its last rows have gone or wait ready.
        db_->CloseSelect();
        preparing_ = false;
        return;
    }
    const int wanted = BlockRows(0) + 1;  // one more tells whether another block follows
    if (!FillRows(wanted, 1)) {
        selectFailed_ = true;
        preparing_ = false;
    } else if (rows_.Rows() >= wanted || rows_.BytesOf(rows_.Rows()) > kMaxBlockBytes) {
        preparing_ = false;
    }
}

void Session::EndSelect() {
    db_->CloseSelect();
    rows_.Clear();
    selectColumns_ = 0;
    preparing_ = false;
    selectFailed_ = false;
}

bool Session::AnswerBlock(EncodedAnswer& answer, int fonction, std::vector<int> head, int asked) {
    const int limit = BlockRows(asked);
    if (selectFailed_ || !FillRows(limit + 1, 0)) {
        EndSelect();
        return false;
    }
    const int rows = rows_.Fit(limit, kMaxBlockBytes);
    const bool more = rows_.Rows() > rows;
    head.push_back(rows);
    head.push_back(rows > 0 ? selectColumns_ : 0);
    head.push_back(more ? 1 : 0);
    CParamComm comm = server_.CommParams();
    if (!answer.Set(idApplication_, fonction, idConnexion_, comm, head, rows_, rows, rows * selectColumns_)) {
        EndSelect();
        return false;
    }
    rows_.Drop(rows);
    preparing_ = more || db_->IsSelectOpen();
    return true;
}

void Session::AnswerExecuteSelect(CMsgSocket& request, EncodedAnswer& answer) {
    std::string sql;
    if (!ReadText(request, 0, &sql)) return ErrorAnswer(answer, KVN_EXECUTESELECT, KVN_ERROR_PARAMETER);
    if (ServiceLogLevel() >= 2)
        ServiceLog(2, "app %d cnx %d: select %s", idApplication_, idConnexion_, Excerpt(sql).c_str());
    EndSelect();
    int columns = 0;
    long long rows = -1;
    if (!db_->OpenSelect(sql, &columns, &rows)) return ErrorAnswer(answer, KVN_EXECUTESELECT, KVN_ERROR_ODBC);
    selectColumns_ = columns;
    // Status, the value beside the rows, the status of the first block.
    if (!AnswerBlock(answer, KVN_EXECUTESELECT, {KVN_NO_ERROR, SelectResultat(columns, rows), KVN_NO_ERROR}, 0))
        ErrorAnswer(answer, KVN_EXECUTESELECT, KVN_ERROR_ODBC);
}

void Session::AnswerGetLine(CMsgSocket& request, EncodedAnswer& answer) {
    int asked = 0;
    ReadLong(request, 0, &asked);  // 0 or absent: the service's block size
    // Without an open select the block is empty: the client reads the end of the rows.
    if (!AnswerBlock(answer, KVN_GETLINE, {KVN_NO_ERROR}, asked)) ErrorAnswer(answer, KVN_GETLINE, KVN_ERROR_ODBC);
}

void Session::AnswerTableExists(CMsgSocket& request, CMsgSocket& answer) {
    std::string table;
    if (!ReadText(request, 0, &table)) return ErrorAnswer(answer, KVN_EXISTTABLE, KVN_ERROR_PARAMETER);
    ServiceLog(2, "app %d cnx %d: table exists %s", idApplication_, idConnexion_, table.c_str());
    bool exists = false;
    if (!db_->TableExists(table, &exists)) return ErrorAnswer(answer, KVN_EXISTTABLE, KVN_ERROR_ODBC);
    StartAnswer(answer, KVN_EXISTTABLE);
    AddLong(answer, KVN_NO_ERROR);
    AddLong(answer, exists ? 1 : 0);
}

void Session::AnswerColumnExists(CMsgSocket& request, CMsgSocket& answer) {
    std::string table, column;
    if (!ReadText(request, 0, &table) || !ReadText(request, 1, &column)) {
        return ErrorAnswer(answer, KVN_EXISTCOLUMN, KVN_ERROR_PARAMETER);
    }
    ServiceLog(2, "app %d cnx %d: column exists %s.%s", idApplication_, idConnexion_, table.c_str(),
               column.c_str());
    std::vector<DbColumn> columns;
    if (!db_->Columns(table, &columns)) return ErrorAnswer(answer, KVN_EXISTCOLUMN, KVN_ERROR_ODBC);
    bool exists = false;
    for (const DbColumn& c : columns) {
        if (c.name.size() != column.size()) continue;
        exists = std::equal(c.name.begin(), c.name.end(), column.begin(), [](char a, char b) {
            return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
        });
        if (exists) break;
    }
    StartAnswer(answer, KVN_EXISTCOLUMN);
    AddLong(answer, KVN_NO_ERROR);
    AddLong(answer, exists ? 1 : 0);
}

void Session::AnswerColumns(CMsgSocket& request, CMsgSocket& answer) {
    std::string table;
    if (!ReadText(request, 0, &table)) return ErrorAnswer(answer, KVN_GETCOLUMNS, KVN_ERROR_PARAMETER);
    ServiceLog(2, "app %d cnx %d: columns of %s", idApplication_, idConnexion_, table.c_str());
    std::vector<DbColumn> columns;
    if (!db_->Columns(table, &columns)) return ErrorAnswer(answer, KVN_GETCOLUMNS, KVN_ERROR_ODBC);
    if (columns.empty()) return ErrorAnswer(answer, KVN_GETCOLUMNS, KVN_ERROR_TABLE_NOT_FOUND);
    // Names and types in column order, each list separated by semicolons.
    std::string names, types;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (i) names += ';', types += ';';
        names += columns[i].name;
        types += columns[i].type;
    }
    StartAnswer(answer, KVN_GETCOLUMNS);
    AddLong(answer, KVN_NO_ERROR);
    AddLong(answer, static_cast<int>(columns.size()));
    AddText(answer, names);
    AddText(answer, types);
}

void Session::AnswerExecuteBind(CMsgSocket& request, CMsgSocket& answer) {
    std::string sql;
    if (!ReadText(request, 0, &sql)) return ErrorAnswer(answer, KVN_EXECUTEBIND, KVN_ERROR_PARAMETER);
    std::vector<DbValue> values;
    for (int i = 1; i < request.GetNbParametre(); ++i) {
        DbValue v;
        if (!ReadDbValue(request, i, &v)) return ErrorAnswer(answer, KVN_EXECUTEBIND, KVN_ERROR_PARAMETER);
        values.push_back(v);
    }
    ServiceLog(2, "app %d cnx %d: execute with %zu values %s", idApplication_, idConnexion_, values.size(),
               Excerpt(sql).c_str());
    long long rows = 0;
    if (!db_->ExecuteBind(sql, values, &rows)) return ErrorAnswer(answer, KVN_EXECUTEBIND, KVN_ERROR_ODBC);
    StartAnswer(answer, KVN_EXECUTEBIND);
    AddLong(answer, KVN_NO_ERROR);
    AddLong(answer, ClampToInt(rows));
}

void Session::AnswerStoredProc(CMsgSocket& request, CMsgSocket& answer) {
    // The name, an option (not used by this service), then for each
    // parameter its direction and its value.
    std::string name;
    int option = 0;
    const int count = request.GetNbParametre();
    if (!ReadText(request, 0, &name) || !ReadLong(request, 1, &option) || count % 2 != 0) {
        return ErrorAnswer(answer, KVN_EXECUTEPROC, KVN_ERROR_PARAMETER);
    }
    std::vector<DbProcParam> params;
    std::vector<int> wireTypes;  // an OUT text goes back with the type it came with
    for (int i = 2; i + 1 < count; i += 2) {
        int direction = 0;
        DbProcParam p;
        if (!ReadLong(request, i, &direction) || !ReadDbValue(request, i + 1, &p.value)) {
            return ErrorAnswer(answer, KVN_EXECUTEPROC, KVN_ERROR_PARAMETER);
        }
        if (direction == KVN_PARAM_IN) p.direction = DbDirection::In;
        else if (direction == KVN_PARAM_INOUT) p.direction = DbDirection::InOut;
        else if (direction == KVN_PARAM_OUT) p.direction = DbDirection::Out;
        else return ErrorAnswer(answer, KVN_EXECUTEPROC, KVN_ERROR_PARAMETER);
        CParam* raw = nullptr;
        request.GetParametre(i + 1, &raw);
        wireTypes.push_back(static_cast<signed char>(raw->cType));
        params.push_back(p);
    }
    ServiceLog(2, "app %d cnx %d: call %s with %zu parameters", idApplication_, idConnexion_, name.c_str(),
               params.size());
    if (!db_->CallProcedure(name, params)) return ErrorAnswer(answer, KVN_EXECUTEPROC, KVN_ERROR_ODBC);
    StartAnswer(answer, KVN_EXECUTEPROC);
    AddLong(answer, KVN_NO_ERROR);
    int values = 0;
    for (std::size_t i = 0; i < params.size(); ++i) {
        if (params[i].direction == DbDirection::In) continue;
        AddDbValue(answer, params[i].value, wireTypes[i]);
        ++values;
    }
    // An answer carries at least one value after its status.
    if (values == 0) AddLong(answer, 0);
}

void Session::AnswerErrorText(CMsgSocket& answer) {
    StartAnswer(answer, KVN_GET_ODBC_ERROR_TEXT);
    AddLong(answer, KVN_NO_ERROR);
    const std::string& text = db_->LastError();
    if (text.empty()) AddNull(answer, SQL_C_WCHAR);
    else AddText(answer, text, SQL_C_WCHAR);
}

void Session::AnswerRequete(CMsgSocket& request, CMsgSocket& answer) {
    // A direct request: run as a statement, answered by its status alone.
    std::string sql;
    if (!ReadText(request, 0, &sql)) return ErrorAnswer(answer, KVN_REQUETE_METABASE, KVN_ERROR_PARAMETER);
    if (ServiceLogLevel() >= 2)
        ServiceLog(2, "app %d cnx %d: request %s", idApplication_, idConnexion_, Excerpt(sql).c_str());
    long long rows = 0;
    if (!db_->Execute(sql, &rows)) return ErrorAnswer(answer, KVN_REQUETE_METABASE, KVN_ERROR_ODBC);
    StartAnswer(answer, KVN_REQUETE_METABASE);
    AddLong(answer, KVN_NO_ERROR);
}
