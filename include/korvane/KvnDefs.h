// Constants shared by the library, its applications and the service:
// result codes, function codes of the messages, value type codes and the
// names of the notification messages.
#ifndef KORVANE_KVNDEFS_H
#define KORVANE_KVNDEFS_H

// ---- Result codes -------------------------------------------------------
// 0 is success; the negative codes are failures, each with an English text
// (CKorvaneClient::GetErrorTxt). They also travel on the wire in the
// service's answers, so their values are part of the protocol.
#define KVN_NO_ERROR 0
#define KVN_ERROR_UNKNOWN (-2)
#define KVN_ERROR_MEMORY (-50)
#define KVN_ERROR_RECEIVE (-51)
#define KVN_ERROR_SEND (-52)
#define KVN_ERROR_SOCKET_CLOSED (-53)
#define KVN_ERROR_MAX_CLIENT_ATTEINT (-54)
#define KVN_ERROR_SERVER_NOT_FOUND (-55)
#define KVN_ERROR_ODBC_CONNEXION (-56)
#define KVN_ERROR_INIT_COMM (-57)
#define KVN_ERROR_PARAMETER (-58)
#define KVN_ERROR_NO_DATABASE (-59)
#define KVN_ERROR_DATABASE_UNKNOWN (-60)
#define KVN_ERROR_STATEMENT_CLOSED (-61)
#define KVN_ERROR_HANDLE_CNX (-62)
#define KVN_ERROR_TIMEOUT (-63)
#define KVN_ERROR_DATATYPE (-64)
#define KVN_ERROR_TABLE_NOT_FOUND (-65)
#define KVN_ERROR_ODBC (-66)
#define KVN_ERROR_INIT_NB_PARAM (-68)

// Outcomes of the row and column operations (not failures).
#define KVN_NO_DATA 100   // no row, no such column, no more rows
#define KVN_NULL_DATA 101 // the value is NULL
#define KVN_DATA_TRUNCATED 102 // a text cut to fit the caller's buffer

// ---- Function codes (byte 6 of every message header) ---------------------
#define KVN_INIT_OK 0
#define KVN_ACK 1
#define KVN_HEART_BEAT 5
#define KVN_GET_NB_CLIENT 6
#define KVN_GET_MAX_NB_CLIENT 7
#define KVN_DECONNEXION_WARNING 8
#define KVN_DECONNEXION 9
#define KVN_INIT_APPLICATION 20
#define KVN_INIT_CONNEXION 21
#define KVN_CLOSE_APPLICATION 25
#define KVN_CLOSE_CONNEXION 26
#define KVN_REINIT_APPLICATION 28
#define KVN_REINIT_CONNEXION 29
#define KVN_EXECUTE 101
#define KVN_EXECUTESELECT 102
#define KVN_FETCH 103
#define KVN_GETDATA 104
#define KVN_LIBERE_CNX_SELECT 105
#define KVN_GETLINE 106
#define KVN_EXISTTABLE 107
#define KVN_EXISTCOLUMN 108
#define KVN_GETCOLUMNS 109
#define KVN_EXECUTEBIND 110
#define KVN_EXECUTEPROC 111
#define KVN_NUMRESULTCOLS 112
#define KVN_PREPARE 113
#define KVN_ROWCOUNT 114
#define KVN_TRANSACT 115
#define KVN_PUTDATA 116
#define KVN_MORERESULT 117
#define KVN_BINDPARAMETER 118
#define KVN_GET_ODBC_ERROR_TEXT 119
#define KVN_REQUETE_METABASE 120

// ---- Value type codes ------------------------------------------------------
// The ODBC C data type codes. A value holds its code in one byte, so a
// negative code is also met as its unsigned byte (248 for -8). The ODBC
// headers define the same names, with the same values, as macros: when they
// come first their macros are used; when they come after, their macros take
// over from these constants, which are constants rather than macros so that
// nothing is defined twice.
#ifndef SQL_C_CHAR
constexpr int SQL_C_CHAR = 1;
#endif
#ifndef SQL_C_WCHAR
constexpr int SQL_C_WCHAR = -8;
#endif
#ifndef SQL_C_LONG
constexpr int SQL_C_LONG = 4;
#endif
#ifndef SQL_C_DOUBLE
constexpr int SQL_C_DOUBLE = 8;
#endif
#ifndef SQL_C_TIMESTAMP
constexpr int SQL_C_TIMESTAMP = 11;
#endif
#ifndef SQL_C_SBIGINT
constexpr int SQL_C_SBIGINT = -25;
#endif
#ifndef SQL_C_UBIGINT
constexpr int SQL_C_UBIGINT = -27;
#endif
#ifndef SQL_C_GUID
constexpr int SQL_C_GUID = -11;
#endif

// ---- Directions of stored-procedure parameters ----------------------------
#define KVN_PARAM_IN 1
#define KVN_PARAM_INOUT 2
#define KVN_PARAM_OUT 4

// ---- Registered notification messages --------------------------------------
#define KVN_MSG_PERTE_COMM L"KVN_MSG_PERTE_COMM"
#define KVN_MSG_COMM_OK L"KVN_MSG_COMM_OK"
#define KVN_MSG_WARNING_FERMETURE L"KVN_MSG_WARNING_FERMETURE"
#define KVN_MSG_FERMETURE L"KVN_MSG_FERMETURE"
#define KVN_MSG_FERMETURE_KORVANE L"KVN_MSG_FERMETURE_KORVANE"

#endif
