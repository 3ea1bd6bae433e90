// The dispatch of the service's answers into the connection that asked.
//
// A connection's thread receives each answer into a CMsgSocketClient and calls
// AnalyseFonction (declared with the class), which hands it to the receiver of
// its function code. Each receiver reads the answer's parameters, stores the
// status (m_nResultat), the error code (m_nCodeErreur), the values
// (m_nNbResultats, m_tabParam) and, for rows, the row buffer of the
// connection, and then sets the connection's hEvtResultArrived, on which the
// caller of the request waits. Every write happens before the event is set.
//
// Conventions of every answer: parameter 0 is a SQL_C_LONG status; -2 means
// that the service reports an error and parameter 1 then holds its code. An
// answer of the wrong shape is stored as status -2 with code -51
// (KVN_ERROR_RECEIVE), and the event is set all the same, so that a waiting
// caller never hangs on a malformed answer.
//
// This file is not for sending requests (CMsgSocketClient.cpp builds them and
// ThreadSockClient sends them) nor for reading the stored answer (the
// operations do that under the connection's request lock).
#ifndef KORVANE_PROTOCOL_DISPATCH_H
#define KORVANE_PROTOCOL_DISPATCH_H

// Values that the value-list answers may store; the rest are ignored.
#define KVN_NB_VALEURS_GETCOLUMNS 128  // all of m_tabParam
#define KVN_NB_VALEURS_PROC 64         // one per stored-procedure parameter at most

// Parameter of the first cell of a row block.
#define KVN_PREMIERE_CELLULE_SELECT 6   // status, value, status, rows, columns, more
#define KVN_PREMIERE_CELLULE_GETLINE 4  // status, rows, columns, more

// 1 when answers with this function code have a receiver.
int KvnHasReceiver(int fonction);

#endif
