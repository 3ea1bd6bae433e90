// The input as statements and commands: where a statement ends, and what
// the columns of a statement's result are called.
//
// Pure text work; the statements are run elsewhere.
#ifndef KVNSQL_STATEMENTS_H
#define KVNSQL_STATEMENTS_H

#include <string>
#include <vector>

struct InputItem {
    bool command = false;  // a backslash command (text without the backslash)
    std::wstring text;
    int line = 0;          // the input line it starts on, from 1
};

// Cuts the input, line by line, into statements and backslash commands. A
// statement ends at a ';' outside quotes ('', "", [], ``, $$ and $tag$) and
// comments, or at the end of the input (Finish); blank lines inside it are
// part of it. A line that starts with a backslash outside quotes and
// comments is a command, also while a statement is pending (which goes on
// after it), and so is the rest of a line after a statement's ';' when it
// starts with a backslash. "\r" clears the pending statement and "\g" ends
// it as ';' would; "\q" and "\r" alone on a line count even inside an open
// quote or comment.
class StatementSplitter {
public:
    // The items that this line completes, in order.
    std::vector<InputItem> AddLine(const std::wstring& line);
    // The statement still pending at the end of the input, if any.
    std::vector<InputItem> Finish();
    bool Pending() const;
    // Forgets the pending statement (Ctrl-C at the prompt).
    void Clear();

private:
    void EndStatement(std::vector<InputItem>& items);
    void RunCommandLine(const std::wstring& command, std::vector<InputItem>& items);

    std::wstring pending_;
    wchar_t quote_ = 0;         // inside '...', "..." or [...] (its closing character)
    std::wstring dollarTag_;    // inside $tag$ ... $tag$ (a function body), the tag
    bool blockComment_ = false; // inside /* ... */
    int lineNumber_ = 0;        // lines added so far
    int startLine_ = 1;         // where the pending text starts
};

// The whole text of -c as items (the same rules, the text's lines in turn).
std::vector<InputItem> SplitText(const std::wstring& text);

// The statement reads as a query (SELECT, WITH, VALUES, TABLE... first):
// only to warn that a bound statement shows no rows.
bool ReturnsRows(const std::wstring& sql);

// One column header, or the columns of a table in its place.
struct HeaderItem {
    std::wstring name;
    std::wstring starTable;  // not empty: all the columns of this table (from * or t.*)
};

// What the columns of a statement's result are called, read from its text
// (the service sends no names): the alias, else the last part of a column
// name, else the expression itself, for each item of a select list or a
// RETURNING list; the table's columns for *, t.* and TABLE t; column1... for
// VALUES. Empty when this reading does not understand the statement.
std::vector<HeaderItem> GuessHeaders(const std::wstring& sql);

// A command's name (lower case) and the text after it, without final ';'.
void SplitCommand(const std::wstring& command, std::wstring& name, std::wstring& arguments);

#endif
