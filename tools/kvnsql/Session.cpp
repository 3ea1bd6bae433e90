// Running statements: selects as tables, other statements with the number
// the service returns, bound statements with the values of \bind, and the
// error texts of every failure.
#include "Session.h"

#include <chrono>
#include <cstdio>
#include <cwchar>

#include <korvane/CKorvaneClient.h>

#include "TableOutput.h"
#include "Utf8.h"

namespace {

// Beyond this many columns a row is taken as endless: the library answers
// KVN_NO_DATA past the last column, so only a broken service gets here.
const int kMaxColumns = 10000;

double MillisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// Failures of the link or of the library itself, where the service has no
// diagnostic of its own to add.
bool IsLocalFailure(int code) {
    switch (code) {
    case KVN_ERROR_MEMORY:
    case KVN_ERROR_RECEIVE:
    case KVN_ERROR_SEND:
    case KVN_ERROR_SOCKET_CLOSED:
    case KVN_ERROR_HANDLE_CNX:
    case KVN_ERROR_TIMEOUT:
        return true;
    default:
        return false;
    }
}

std::wstring AffectedLine(int resultat) {
    if (resultat < 0) return L"OK";
    return L"OK, " + std::to_wstring(resultat) + (resultat == 1 ? L" row affected" : L" rows affected");
}

}  // namespace

KvnsqlSession::KvnsqlSession(CKorvaneClient& client, int hCnx, std::FILE* out, std::FILE* err,
                             const std::wstring& nullText, bool echo)
    : client_(client), hCnx_(hCnx), out_(out), err_(err), nullText_(nullText), echo_(echo) {}

bool KvnsqlSession::Run(const InputItem& item) {
    std::wstring name, arguments;
    if (item.command) SplitCommand(item.text, name, arguments);
    // \echo prints its text already; echoing the command too would say it twice.
    if (echo_ && name != L"echo") {
        Print(item.command ? L"\\" + item.text + L"\n" : item.text + L";\n");
    }
    const bool ok = item.command ? RunCommand(item.text) : RunStatement(item.text);
    std::fflush(out_);
    return ok;
}

void KvnsqlSession::Print(const std::wstring& text) {
    const std::string bytes = WideToUtf8(text);
    std::fwrite(bytes.data(), 1, bytes.size(), out_);
}

void KvnsqlSession::ReportUsage(const std::wstring& text) {
    std::fflush(out_);
    const std::string bytes = WideToUtf8(text + L"\n");
    std::fwrite(bytes.data(), 1, bytes.size(), err_);
    std::fflush(err_);
}

void KvnsqlSession::ReportError(const std::wstring& what, int code) {
    DStr text;
    client_.GetErrorTxt(code, text);
    std::wstring message = L"ERROR " + std::to_wstring(code) + L" (" + what + L"): " + text.GetString();
    if (!IsLocalFailure(code)) {
        DStr detail;
        if (client_.GetLastErrorConnexion(hCnx_, detail) == KVN_NO_ERROR && !detail.IsEmpty()) {
            message += L"\n  service: ";
            message += detail.GetString();
        }
    }
    ReportUsage(message);
}

bool KvnsqlSession::RunStatement(const std::wstring& sql) {
    if (!pendingBinds_.empty()) return RunBound(sql);
    if (ReturnsRows(sql)) return RunSelect(sql);
    return RunExecute(sql);
}

bool KvnsqlSession::RunExecute(const std::wstring& sql) {
    const auto start = std::chrono::steady_clock::now();
    int resultat = 0;
    const int rc = client_.Execute(hCnx_, sql.c_str(), resultat);
    if (rc != KVN_NO_ERROR) {
        ReportError(L"Execute", rc);
        return false;
    }
    wchar_t timing[32];
    std::swprintf(timing, 32, L" (%.1f ms)\n", MillisecondsSince(start));
    Print(AffectedLine(resultat) + timing);
    return true;
}

bool KvnsqlSession::RunBound(const std::wstring& sql) {
    // The library keeps bound values only until the next answer on the
    // connection, so they are bound right before the statement, every time.
    std::vector<TypedValue> values;
    values.swap(pendingBinds_);
    if (ReturnsRows(sql)) ReportUsage(L"note: a bound statement shows no rows");
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < values.size(); ++i) {
        TypedValue& v = values[i];
        void* data = nullptr;
        unsigned int size = 0;
        switch (v.type) {
        case SQL_C_LONG: data = &v.longValue, size = sizeof v.longValue; break;
        case SQL_C_SBIGINT: data = &v.bigintValue, size = sizeof v.bigintValue; break;
        case SQL_C_DOUBLE: data = &v.doubleValue, size = sizeof v.doubleValue; break;
        case SQL_C_TIMESTAMP: data = &v.timestamp, size = sizeof v.timestamp; break;
        default: data = &v.text[0], size = static_cast<unsigned int>(v.text.size()); break;
        }
        if (v.null) data = nullptr, size = 0;
        const int rc = client_.BindParameter(hCnx_, static_cast<int>(i) + 1, v.type, data, size);
        if (rc != KVN_NO_ERROR) {
            ReportError(L"BindParameter " + std::to_wstring(i + 1), rc);
            return false;
        }
    }
    int resultat = 0;
    const int rc = client_.ExecuteBind(hCnx_, sql.c_str(), resultat);
    if (rc != KVN_NO_ERROR) {
        ReportError(L"ExecuteBind", rc);
        return false;
    }
    wchar_t timing[64];
    std::swprintf(timing, 64, L" (%zu bound, %.1f ms)\n", values.size(), MillisecondsSince(start));
    Print(AffectedLine(resultat) + timing);
    return true;
}

std::vector<std::wstring> KvnsqlSession::HeadersFor(const std::wstring& sql) {
    std::wstring table;
    std::vector<std::wstring> names = SelectColumnNames(sql, table);
    if (!table.empty()) {
        // "SELECT * FROM t": the table's own column names, asked before the
        // select so that the question does not meet an open statement.
        int count = 0;
        DStr noms, types;
        if (client_.GetColumns(hCnx_, table.c_str(), count, noms, types) == KVN_NO_ERROR) {
            names = SplitList(noms.GetString());
        }
    }
    return names;
}

bool KvnsqlSession::RunSelect(const std::wstring& sql) {
    std::vector<std::wstring> names = HeadersFor(sql);
    const auto start = std::chrono::steady_clock::now();
    int resultat = 0;
    int rc = client_.ExecuteSelect(hCnx_, sql.c_str(), resultat);
    if (rc != KVN_NO_ERROR) {
        ReportError(L"ExecuteSelect", rc);
        return false;
    }
    ResultTable table;
    std::vector<int> types;  // per column: the type met, 0 for none yet, -1 for mixed
    bool ok = true;
    for (;;) {
        rc = client_.Fetch(hCnx_);
        if (rc == KVN_NO_DATA) break;
        if (rc != KVN_NO_ERROR) {
            ReportError(L"Fetch", rc);
            ok = false;
            break;
        }
        std::vector<Cell> row;
        for (int col = 1; col <= kMaxColumns; ++col) {
            CParam value;
            rc = client_.GetData(hCnx_, col, value);
            if (rc == KVN_NO_DATA) break;
            if (rc != KVN_NO_ERROR) {
                ReportError(L"GetData column " + std::to_wstring(col), rc);
                ok = false;
                break;
            }
            Cell cell;
            cell.null = value.bNull != 0;
            if (!cell.null) cell.text = CellText(value);
            if (types.size() < static_cast<std::size_t>(col)) types.resize(col, 0);
            if (!cell.null) {
                int& t = types[col - 1];
                t = t == 0 || t == value.cType ? value.cType : -1;
            }
            row.push_back(std::move(cell));
        }
        if (!ok) break;
        table.rows.push_back(std::move(row));
    }
    const double elapsed = MillisecondsSince(start);
    const int release = client_.LibereStatment(hCnx_);
    if (release != KVN_NO_ERROR && ok) ReportError(L"LibereStatment", release);

    std::size_t columns = types.size();
    if (columns == 0) columns = names.size();
    if (names.size() != columns) {
        names.clear();
        for (std::size_t c = 1; c <= columns; ++c) names.push_back(L"#" + std::to_wstring(c));
    }
    if (columns > 0) {
        table.headers = names;
        for (std::size_t c = 0; c < columns; ++c) {
            table.rightAligned.push_back(c < types.size() && IsNumericType(types[c]));
        }
        Print(FormatTable(table, nullText_));
    }
    Print(RowCountLine(table.rows.size(), elapsed) + L"\n");
    return ok;
}
