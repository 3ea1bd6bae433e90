// The text of results: values as cells, a result as an aligned table, and
// the lists that the service returns for a table's columns.
//
// Formatting only; the rows are read from the service elsewhere.
#ifndef KVNSQL_TABLEOUTPUT_H
#define KVNSQL_TABLEOUTPUT_H

#include <string>
#include <vector>

#include <korvane/CParam.h>

struct Cell {
    bool null = false;
    std::wstring text;
};

struct ResultTable {
    std::vector<std::wstring> headers;
    std::vector<bool> rightAligned;  // per column: numbers are aligned right
    std::vector<std::vector<Cell>> rows;
};

// The display text of a value that is not NULL, by its type.
std::wstring CellText(const CParam& value);
bool IsNumericType(int type);

enum class OutputFormat { Aligned, Unaligned, Csv };

struct OutputStyle {
    OutputFormat format = OutputFormat::Aligned;
    bool tuplesOnly = false;             // rows only: no header line
    std::wstring fieldSeparator;         // unaligned and CSV; empty: '|' and ','
    std::wstring nullText = L"NULL";
};

// The result as text:
// - aligned: a header line, a rule and one line per row; cells padded to the
//   widest of their column in display cells (wide characters count two,
//   combining ones none), numbers to the right; control characters in texts
//   shown escaped so that a row stays on one line;
// - unaligned: the cells as they are, joined by the separator;
// - CSV: fields quoted where they hold the separator, a quote or a line
//   break; NULL as an empty field, an empty text as "".
// Rows shorter than the header are padded with empty cells.
std::wstring FormatResult(const ResultTable& table, const OutputStyle& style);

// Columns that text takes on a terminal.
std::size_t DisplayWidth(const std::wstring& text);

// "(1 row)"
std::wstring RowCountLine(std::size_t rows);

// The items of a list that the service sends as one text (column names or
// types): split on its separator (one of ';', ',', '|', tab or newline,
// whichever occurs first), items trimmed, empty ones dropped.
std::vector<std::wstring> SplitList(const std::wstring& text);

#endif
