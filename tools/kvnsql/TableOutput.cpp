// Cells, tables and lists as text.
#include "TableOutput.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <wchar.h>  // wcwidth

namespace {

std::wstring Escaped(const std::wstring& text) {
    std::wstring out;
    out.reserve(text.size());
    for (wchar_t c : text) {
        if (c == L'\n') out += L"\\n";
        else if (c == L'\r') out += L"\\r";
        else if (c == L'\t') out += L"\\t";
        else if (c < 0x20 || c == 0x7F) out += L'?';
        else out += c;
    }
    return out;
}

std::wstring Trimmed(const std::wstring& text) {
    std::size_t b = 0, e = text.size();
    while (b < e && std::iswspace(text[b])) ++b;
    while (e > b && std::iswspace(text[e - 1])) --e;
    return text.substr(b, e - b);
}

}  // namespace

bool IsNumericType(int type) {
    return type == SQL_C_LONG || type == SQL_C_SBIGINT || type == SQL_C_DOUBLE;
}

std::wstring CellText(const CParam& value) {
    wchar_t buffer[64];
    switch (value.cType) {
    case SQL_C_LONG:
        return std::to_wstring(value.valNum.lVal);
    case SQL_C_SBIGINT:
        return std::to_wstring(value.valNum.llVal);
    case SQL_C_DOUBLE:
        std::swprintf(buffer, 64, L"%.15g", value.valNum.dVal);
        return buffer;
    case SQL_C_TIMESTAMP: {
        const KvnTimestamp t = value.dateValeur;
        std::swprintf(buffer, 64, L"%04d-%02u-%02u %02u:%02u:%02u", t.year, t.month, t.day, t.hour,
                      t.minute, t.second);
        std::wstring text = buffer;
        if (t.fraction != 0) {
            // ODBC keeps the fraction in nanoseconds; trailing zeros say nothing.
            std::swprintf(buffer, 64, L".%09u", static_cast<unsigned>(t.fraction));
            std::wstring fraction = buffer;
            while (fraction.back() == L'0') fraction.pop_back();
            text += fraction;
        }
        return text;
    }
    case SQL_C_GUID: {
        const kvn::GUID g = value.guidValeur;
        std::swprintf(buffer, 64, L"%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                      static_cast<unsigned>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1],
                      g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
        return buffer;
    }
    default:
        return value.pszValeur ? value.pszValeur : L"";
    }
}

std::size_t DisplayWidth(const std::wstring& text) {
    std::size_t width = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        wchar_t c = text[i];
        if (sizeof(wchar_t) == 2 && c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size()) {
            ++i;
            width += 2;  // beyond the basic plane: emoji and CJK extensions, two cells
            continue;
        }
        const int w = wcwidth(c);
        width += w < 0 ? 1 : static_cast<std::size_t>(w);
    }
    return width;
}

namespace {

std::wstring Aligned(const ResultTable& table, const OutputStyle& style) {
    const std::size_t columns = table.headers.size();
    std::vector<std::vector<std::wstring>> texts;
    texts.reserve(table.rows.size());
    std::vector<std::size_t> widths(columns);
    if (!style.tuplesOnly) {
        for (std::size_t c = 0; c < columns; ++c) widths[c] = DisplayWidth(table.headers[c]);
    }
    for (const std::vector<Cell>& row : table.rows) {
        std::vector<std::wstring> line(columns);
        for (std::size_t c = 0; c < columns && c < row.size(); ++c) {
            line[c] = row[c].null ? style.nullText : Escaped(row[c].text);
            widths[c] = std::max(widths[c], DisplayWidth(line[c]));
        }
        texts.push_back(std::move(line));
    }
    auto right = [&](std::size_t c) { return c < table.rightAligned.size() && table.rightAligned[c]; };
    auto appendLine = [&](const std::vector<std::wstring>& cells, bool header) {
        std::wstring line;
        for (std::size_t c = 0; c < columns; ++c) {
            const std::wstring pad(widths[c] - DisplayWidth(cells[c]), L' ');
            line += c == 0 ? L" " : L" | ";
            if (right(c) && !header) line += pad + cells[c];
            else line += cells[c] + (c + 1 < columns ? pad : L"");
        }
        // The last column of a left-aligned line needs no trailing blanks.
        while (!line.empty() && line.back() == L' ') line.pop_back();
        return line + L"\n";
    };
    std::wstring out;
    if (!style.tuplesOnly) {
        out = appendLine(table.headers, true);
        for (std::size_t c = 0; c < columns; ++c) {
            out += (c == 0 ? L"" : L"+") + std::wstring(widths[c] + 2, L'-');
        }
        out += L"\n";
    }
    for (const std::vector<std::wstring>& line : texts) out += appendLine(line, false);
    return out;
}

std::wstring CsvField(const std::wstring& text, const std::wstring& separator) {
    if (text.find_first_of(L"\"\r\n") == std::wstring::npos && text.find(separator) == std::wstring::npos &&
        !text.empty()) {
        return text;
    }
    std::wstring quoted = L"\"";
    for (wchar_t c : text) {
        if (c == L'"') quoted += L'"';
        quoted += c;
    }
    return quoted + L"\"";
}

std::wstring Separated(const ResultTable& table, const OutputStyle& style) {
    const bool csv = style.format == OutputFormat::Csv;
    const std::wstring separator = !style.fieldSeparator.empty() ? style.fieldSeparator : csv ? L"," : L"|";
    const std::size_t columns = table.headers.size();
    std::wstring out;
    auto appendLine = [&](const std::vector<Cell>& cells) {
        for (std::size_t c = 0; c < columns; ++c) {
            if (c > 0) out += separator;
            if (c >= cells.size()) continue;
            const Cell& cell = cells[c];
            if (cell.null) out += style.nullText;
            else out += csv ? CsvField(cell.text, separator) : cell.text;
        }
        out += L"\n";
    };
    if (!style.tuplesOnly) {
        std::vector<Cell> header;
        for (const std::wstring& name : table.headers) header.push_back({false, name});
        appendLine(header);
    }
    for (const std::vector<Cell>& row : table.rows) appendLine(row);
    return out;
}

}  // namespace

std::wstring FormatResult(const ResultTable& table, const OutputStyle& style) {
    return style.format == OutputFormat::Aligned ? Aligned(table, style) : Separated(table, style);
}

std::wstring RowCountLine(std::size_t rows) {
    return L"(" + std::to_wstring(rows) + (rows == 1 ? L" row)" : L" rows)");
}

std::vector<std::wstring> SplitList(const std::wstring& text) {
    const std::size_t at = text.find_first_of(L";,|\t\n");
    std::vector<std::wstring> items;
    if (at == std::wstring::npos) {
        const std::wstring item = Trimmed(text);
        if (!item.empty()) items.push_back(item);
        return items;
    }
    const wchar_t separator = text[at];
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find(separator, start);
        const std::wstring item = Trimmed(text.substr(start, end == std::wstring::npos ? end : end - start));
        if (!item.empty()) items.push_back(item);
        if (end == std::wstring::npos) break;
        start = end + 1;
    }
    return items;
}
