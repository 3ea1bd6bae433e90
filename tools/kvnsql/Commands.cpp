// The backslash commands: schema questions, stored-procedure calls, bound
// values for the next statement, direct requests, help and quit.
#include <chrono>
#include <cstdio>
#include <cwchar>
#include <cwctype>

#include <korvane/CKorvaneClient.h>

#include "Options.h"
#include "Session.h"
#include "TableOutput.h"
#include "Terminal.h"
#include "Utf8.h"

namespace {

// Room for an OUT or IN/OUT text: the library writes the returned text with
// no length limit, and a value's 16-bit size field on the wire keeps any
// text within 32767 UTF-16 units, so this and a terminator always suffice.
const std::size_t kOutTextChars = 32768;

// The variable that the library reads an argument from and writes an OUT
// value back into; it must stay where it is until ExecStoredProc returns.
struct ProcVariable {
    std::int32_t longValue = 0;
    std::int64_t bigintValue = 0;
    double doubleValue = 0;
    KvnTimestamp timestamp{};
    std::vector<wchar_t> text;
};

std::wstring DirectionName(int direction) {
    return direction == KVN_PARAM_IN ? L"in" : direction == KVN_PARAM_INOUT ? L"inout" : L"out";
}

std::wstring Unquoted(const std::wstring& name) {
    if (name.size() >= 2 && (name[0] == L'"' || name[0] == L'\'') && name.back() == name[0]) {
        return name.substr(1, name.size() - 2);
    }
    return name;
}

// Names given to a command: blank-separated words, each possibly quoted.
std::vector<std::wstring> Words(const std::wstring& text) {
    std::vector<std::wstring> words;
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && std::iswspace(text[i])) ++i;
        if (i >= text.size()) break;
        std::size_t end = i;
        if (text[i] == L'"' || text[i] == L'\'') {
            end = text.find(text[i], i + 1);
            end = end == std::wstring::npos ? text.size() : end + 1;
        } else {
            while (end < text.size() && !std::iswspace(text[end])) ++end;
        }
        words.push_back(Unquoted(text.substr(i, end - i)));
        i = end;
    }
    return words;
}

}  // namespace

bool KvnsqlSession::RunCommand(const std::wstring& command) {
    std::wstring name, arguments;
    SplitCommand(command, name, arguments);
    if (name == L"q" || name == L"quit") {
        quit_ = true;
        return true;
    }
    if (name == L"help" || name == L"h" || name == L"?") {
        Print(FromUtf8(CommandsHelp()));
        return true;
    }
    if (name == L"r" || name == L"reset") {
        // The reader has cleared its buffer already.
        Status(L"buffer cleared");
        return true;
    }
    if (name == L"g") {
        ReportUsage(L"\\g: the statement has an open quote or comment; \\r clears it");
        return false;
    }
    if (name == L"exists") return Exists(arguments);
    if (name == L"columns") return Columns(arguments);
    if (name == L"call") return Call(arguments);
    if (name == L"bind") return Bind(arguments);
    if (name == L"unbind") {
        pendingBinds_.clear();
        Status(L"no values bound");
        return true;
    }
    if (name == L"requete") return Requete(arguments);
    if (name == L"echo") {
        Print(arguments + L"\n");
        return true;
    }
    if (name == L"timing") return Timing(arguments);
    if (name == L"pset") return Pset(arguments);
    if (name == L"a") {
        const bool aligned = settings_.style.format != OutputFormat::Aligned;
        return Pset(aligned ? L"format aligned" : L"format unaligned");
    }
    if (name == L"t") return Pset(settings_.style.tuplesOnly ? L"tuples_only off" : L"tuples_only on");
    if (name == L"set") return Set(arguments);
    ReportUsage(L"unknown command \\" + name + L" (\\help lists the commands)");
    return false;
}

namespace {

// "on"/"off" (also true/false, 1/0) into value; false for anything else.
bool ParseSwitch(const std::wstring& text, bool& value) {
    std::wstring lower;
    for (wchar_t c : text) lower += static_cast<wchar_t>(std::towlower(c));
    if (lower == L"on" || lower == L"true" || lower == L"1") value = true;
    else if (lower == L"off" || lower == L"false" || lower == L"0") value = false;
    else return false;
    return true;
}

const wchar_t* OnOff(bool value) { return value ? L"on" : L"off"; }

}  // namespace

bool KvnsqlSession::Timing(const std::wstring& arguments) {
    bool on = !settings_.timing;
    if (!arguments.empty() && !ParseSwitch(arguments, on)) {
        ReportUsage(L"usage: \\timing [on|off]");
        return false;
    }
    settings_.timing = on;
    Status(std::wstring(L"timing is ") + OnOff(on));
    return true;
}

bool KvnsqlSession::Pset(const std::wstring& arguments) {
    std::wstring name, value;
    SplitCommand(arguments, name, value);
    const std::wstring usage =
        L"usage: \\pset format aligned|unaligned|csv, \\pset tuples_only on|off, \\pset fieldsep TEXT, "
        L"\\pset null TEXT, \\pset pager on|off";
    OutputStyle& style = settings_.style;
    if (name == L"format") {
        if (value == L"aligned") style.format = OutputFormat::Aligned;
        else if (value == L"unaligned") style.format = OutputFormat::Unaligned;
        else if (value == L"csv") style.format = OutputFormat::Csv;
        else return ReportUsage(usage), false;
        Status(L"format is " + value);
    } else if (name == L"tuples_only") {
        bool on = !style.tuplesOnly;
        if (!value.empty() && !ParseSwitch(value, on)) return ReportUsage(usage), false;
        style.tuplesOnly = on;
        Status(std::wstring(L"tuples_only is ") + OnOff(on));
    } else if (name == L"fieldsep") {
        if (value.empty()) return ReportUsage(usage), false;
        style.fieldSeparator = Unquoted(value);
        Status(L"fieldsep is \"" + style.fieldSeparator + L"\"");
    } else if (name == L"null") {
        style.nullText = Unquoted(value);
        Status(L"null is \"" + style.nullText + L"\"");
    } else if (name == L"pager") {
        bool on = !settings_.pager;
        if (!value.empty() && !ParseSwitch(value, on)) return ReportUsage(usage), false;
        settings_.pager = on;
        Status(std::wstring(L"pager is ") + OnOff(on));
    } else {
        ReportUsage(usage);
        return false;
    }
    return true;
}

bool KvnsqlSession::Set(const std::wstring& arguments) {
    std::wstring name, value;
    SplitCommand(arguments, name, value);
    bool on = false;
    if (name == L"on_error_stop" && ParseSwitch(value, on)) {
        settings_.stopOnError = on;
        return true;
    }
    if (name.empty()) {
        Print(std::wstring(L"ON_ERROR_STOP = ") + OnOff(settings_.stopOnError) + L"\n");
        return true;
    }
    ReportUsage(L"usage: \\set ON_ERROR_STOP on|off");
    return false;
}

bool KvnsqlSession::Exists(const std::wstring& arguments) {
    const std::vector<std::wstring> words = Words(arguments);
    if (words.empty() || words.size() > 2) {
        ReportUsage(L"usage: \\exists TABLE [COLUMN]");
        return false;
    }
    int exists = 0;
    if (words.size() == 1) {
        const int rc = client_.IsTableExist(hCnx_, words[0].c_str(), exists);
        if (rc != KVN_NO_ERROR) {
            ReportError(L"IsTableExist", rc);
            return false;
        }
        Print(L"table " + words[0] + (exists ? L" exists\n" : L" does not exist\n"));
        return true;
    }
    const int rc = client_.IsColumnExist(hCnx_, words[0].c_str(), words[1].c_str(), exists);
    if (rc != KVN_NO_ERROR) {
        ReportError(L"IsColumnExist", rc);
        return false;
    }
    Print(L"column " + words[0] + L"." + words[1] + (exists ? L" exists\n" : L" does not exist\n"));
    return true;
}

bool KvnsqlSession::Columns(const std::wstring& arguments) {
    const std::vector<std::wstring> words = Words(arguments);
    if (words.size() != 1) {
        ReportUsage(L"usage: \\columns TABLE");
        return false;
    }
    int count = 0;
    DStr noms, types;
    const int rc = client_.GetColumns(hCnx_, words[0].c_str(), count, noms, types);
    if (rc != KVN_NO_ERROR) {
        ReportError(L"GetColumns", rc);
        return false;
    }
    const std::vector<std::wstring> names = SplitList(noms.GetString());
    const std::vector<std::wstring> typeNames = SplitList(types.GetString());
    ResultTable table;
    table.headers = {L"column", L"type"};
    for (std::size_t i = 0; i < names.size(); ++i) {
        table.rows.push_back({Cell{false, names[i]}, Cell{false, i < typeNames.size() ? typeNames[i] : L""}});
    }
    Show(FormatResult(table, settings_.style));
    return true;
}

bool KvnsqlSession::Call(const std::wstring& arguments) {
    ProcCall call;
    std::wstring error;
    if (!ParseCall(arguments, call, error)) {
        ReportUsage(L"\\call: " + error +
                    L"\nusage: \\call PROC(in:TYPE:VALUE, inout:TYPE:VALUE, out:TYPE, ...)");
        return false;
    }
    std::vector<ProcVariable> variables(call.arguments.size());
    int rc = client_.ClearStoredProcParams(hCnx_);
    for (std::size_t i = 0; i < call.arguments.size() && rc == KVN_NO_ERROR; ++i) {
        const ProcArgument& a = call.arguments[i];
        ProcVariable& v = variables[i];
        void* data = nullptr;
        unsigned int size = 0;
        switch (a.value.type) {
        case SQL_C_LONG: v.longValue = a.value.longValue, data = &v.longValue; break;
        case SQL_C_SBIGINT: v.bigintValue = a.value.bigintValue, data = &v.bigintValue; break;
        case SQL_C_DOUBLE: v.doubleValue = a.value.doubleValue, data = &v.doubleValue; break;
        case SQL_C_TIMESTAMP: v.timestamp = a.value.timestamp, data = &v.timestamp; break;
        default:
            v.text.assign(a.value.text.begin(), a.value.text.end());
            size = static_cast<unsigned int>(v.text.size());
            if (a.direction != KVN_PARAM_IN && v.text.size() < kOutTextChars) v.text.resize(kOutTextChars);
            v.text.push_back(L'\0');
            data = v.text.data();
            break;
        }
        rc = client_.AddStoredProcParams(hCnx_, a.direction, a.value.type, data, size);
        if (rc != KVN_NO_ERROR) ReportError(L"AddStoredProcParams " + std::to_wstring(i + 1), rc);
    }
    if (rc != KVN_NO_ERROR) return false;
    const auto start = std::chrono::steady_clock::now();
    {
        ServiceWait wait;
        rc = client_.ExecStoredProc(hCnx_, call.name.c_str(), 0);
    }
    const double elapsed =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (rc != KVN_NO_ERROR) {
        ReportError(L"ExecStoredProc " + call.name, rc);
        return false;
    }
    ResultTable table;
    table.headers = {L"parameter", L"direction", L"type", L"value"};
    for (std::size_t i = 0; i < call.arguments.size(); ++i) {
        const ProcArgument& a = call.arguments[i];
        if (a.direction == KVN_PARAM_IN) continue;
        const ProcVariable& v = variables[i];
        TypedValue out;
        out.type = a.value.type;
        out.longValue = v.longValue;
        out.bigintValue = v.bigintValue;
        out.doubleValue = v.doubleValue;
        out.timestamp = v.timestamp;
        if (!v.text.empty()) out.text = v.text.data();
        table.rows.push_back({Cell{false, std::to_wstring(i + 1)}, Cell{false, DirectionName(a.direction)},
                              Cell{false, TypeName(a.value.type)}, Cell{false, ValueText(out)}});
    }
    if (!table.rows.empty()) {
        table.rightAligned = {true, false, false, false};
        Show(FormatResult(table, settings_.style));
    }
    Status(L"OK, " + call.name + L" called");
    ShowTiming(elapsed);
    return true;
}

bool KvnsqlSession::Bind(const std::wstring& arguments) {
    if (arguments.empty()) {
        if (pendingBinds_.empty()) {
            Status(L"no values bound");
            return true;
        }
        ResultTable table;
        table.headers = {L"marker", L"type", L"value"};
        for (std::size_t i = 0; i < pendingBinds_.size(); ++i) {
            const TypedValue& v = pendingBinds_[i];
            table.rows.push_back({Cell{false, std::to_wstring(i + 1)},
                                  Cell{false, v.null ? L"" : TypeName(v.type)}, Cell{v.null, ValueText(v)}});
        }
        table.rightAligned = {true, false, false};
        Show(FormatResult(table, settings_.style));
        return true;
    }
    std::vector<TypedValue> values;
    std::wstring error;
    if (!ParseBind(arguments, values, error)) {
        ReportUsage(L"\\bind: " + error + L"\nusage: \\bind TYPE:VALUE ... (or VALUE, 'text', null)");
        return false;
    }
    // The library counts a text of length 0 as a NULL.
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (!values[i].null && values[i].text.empty() &&
            (values[i].type == SQL_C_WCHAR || values[i].type == SQL_C_CHAR)) {
            ReportUsage(L"note: value " + std::to_wstring(i + 1) + L" is an empty text, bound as NULL");
        }
    }
    pendingBinds_ = values;
    Status(std::to_wstring(values.size()) + (values.size() == 1 ? L" value" : L" values") +
           L" bound for the next statement");
    return true;
}

bool KvnsqlSession::Requete(const std::wstring& arguments) {
    if (arguments.empty()) {
        ReportUsage(L"usage: \\requete TEXT");
        return false;
    }
    int rc = 0;
    {
        ServiceWait wait;
        rc = client_.ExecuteRequete(hCnx_, arguments.c_str());
    }
    if (rc != KVN_NO_ERROR) {
        ReportError(L"ExecuteRequete", rc);
        return false;
    }
    Status(L"OK");
    return true;
}
