// Result codes: the English text of each code for the application, and the
// French sentence of the client's last failure to open its session or a
// connection.
#include <korvane/CKorvaneClient.h>

#include <cwchar>

namespace {

struct CodeText {
    int code;
    const wchar_t* text;
};

// The codes also travel in the service's answers, so an application may see
// any of them. The texts are part of the interface and are kept as they were
// first published, spelling included.
const CodeText kTexts[] = {
    {KVN_NO_ERROR, L"No Error found"},
    {KVN_ERROR_UNKNOWN, L"Unknown error"},
    {KVN_ERROR_RECEIVE, L"Error while receiving socket message"},
    {KVN_ERROR_SEND, L"Error while sending socket message"},
    {KVN_ERROR_SOCKET_CLOSED, L"The database socket communication is closed"},
    {KVN_ERROR_MAX_CLIENT_ATTEINT, L"Maximum number of database client is reached"},
    {KVN_ERROR_SERVER_NOT_FOUND, L"Unable to find the database server"},
    {KVN_ERROR_ODBC_CONNEXION, L"ODBC connexion creation failed"},
    {KVN_ERROR_INIT_COMM, L"Database communication initialization failed"},
    {KVN_ERROR_PARAMETER, L"Invalid parameter in database communication"},
    {KVN_ERROR_NO_DATABASE, L"Unable to find available database"},
    {KVN_ERROR_DATABASE_UNKNOWN, L"Unknown database error"},
    {KVN_ERROR_STATEMENT_CLOSED, L"Error : Database ODBC statement is closed"},
    {KVN_ERROR_HANDLE_CNX, L"Error : Invalid Database handle parameter"},
    {KVN_ERROR_TIMEOUT, L"Database time-out error"},
    {KVN_ERROR_DATATYPE, L"Invalid datatype in database communication (GetData())"},
    {KVN_ERROR_TABLE_NOT_FOUND, L"Unable to fin the required database table"},
    {KVN_ERROR_ODBC, L"Database ODBC error"},
    {KVN_ERROR_INIT_NB_PARAM,
     L"Error in communication initialization : Korvane did not send a valid number of "
     L"parameters"},
};

// Every other value, the outcomes 100 and 101 and KVN_ERROR_MEMORY included.
const wchar_t kUnknownText[] =
    L"An unknown error occured in database (Korvane) communication.";

const wchar_t* TextOf(int code) {
    for (const CodeText& entry : kTexts) {
        if (entry.code == code) return entry.text;
    }
    return kUnknownText;
}

}  // namespace

int CKorvaneClient::GetErrorTxt(int code, DStr& text) {
    text = TextOf(code);
    return KVN_NO_ERROR;
}

int CKorvaneClient::GetErrorTxt(int code, CString& text) {
    DStr dstr;
    int r = GetErrorTxt(code, dstr);
    text = dstr.GetString();
    return r;
}

// The caller provides room for 90 characters: the longest text (89) and its
// terminator.
int CKorvaneClient::GetErrorTxt(int code, wchar_t* text) {
    DStr dstr;
    int r = GetErrorTxt(code, dstr);
    if (text) std::wcscpy(text, dstr.GetString());
    return r;
}

DStr CKorvaneClient::GetLastError() { return m_lastError; }
