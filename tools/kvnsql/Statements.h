// The input as statements and commands: where a statement ends, which
// statements return rows, and what the columns of a simple select are called.
//
// Pure text work; the statements are run elsewhere.
#ifndef KVNSQL_STATEMENTS_H
#define KVNSQL_STATEMENTS_H

#include <string>
#include <vector>

struct InputItem {
    bool command = false;  // a backslash command (text without the backslash)
    std::wstring text;
};

// Cuts the input, line by line, into statements and backslash commands. A
// statement ends at a ';' outside quotes ('', "", [], ``, $$ and $tag$) and
// comments, at an empty line, or
// at the end of the input (Finish). A line that starts with a backslash while
// no statement is pending is a command, and so is the rest of a line after
// the ';' that ends a statement when it starts with a backslash.
class StatementSplitter {
public:
    // The items that this line completes, in order.
    std::vector<InputItem> AddLine(const std::wstring& line);
    // The statement still pending at the end of the input, if any.
    std::vector<InputItem> Finish();
    bool Pending() const;

private:
    void EndStatement(std::vector<InputItem>& items);

    std::wstring pending_;
    wchar_t quote_ = 0;         // inside '...', "..." or [...] (its closing character)
    std::wstring dollarTag_;    // inside $tag$ ... $tag$ (a function body), the tag
    bool blockComment_ = false; // inside /* ... */
};

// The whole text of -c as items (the same rules, the text's lines in turn).
std::vector<InputItem> SplitText(const std::wstring& text);

// The statement returns rows (SELECT, WITH, VALUES, PRAGMA, EXPLAIN, SHOW
// first, after blanks, comments and opening parentheses).
bool ReturnsRows(const std::wstring& sql);

// The names of the columns of a simple select: for each item of the select
// list, its alias, else the last part of a column name, else the expression
// itself. starTable receives the table of "SELECT * FROM table" (a single
// table, nothing but the star in the list) and the list is then empty.
// Empty when the statement is no select that this reading understands.
std::vector<std::wstring> SelectColumnNames(const std::wstring& sql, std::wstring& starTable);

// A command's name (lower case) and the text after it, without final ';'.
void SplitCommand(const std::wstring& command, std::wstring& name, std::wstring& arguments);

#endif
