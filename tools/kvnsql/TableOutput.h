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

// The table with a header line, a rule and one line per row; cells padded to
// the widest of their column, NULL cells shown as nullText; control
// characters in texts shown escaped so that a row stays on one line. Rows
// shorter than the header are padded with empty cells.
std::wstring FormatTable(const ResultTable& table, const std::wstring& nullText);

// "(1 row, 2.5 ms)"
std::wstring RowCountLine(std::size_t rows, double milliseconds);

// The items of a list that the service sends as one text (column names or
// types): split on its separator (one of ';', ',', '|', tab or newline,
// whichever occurs first), items trimmed, empty ones dropped.
std::vector<std::wstring> SplitList(const std::wstring& text);

#endif
