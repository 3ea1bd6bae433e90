// The acknowledged exchange of messages over a socket: every message is
// acknowledged by its receiver with a bare 16-byte header (function 1 to
// accept, 0 to refuse), and a sender does not consider a message delivered
// until that acknowledgement has arrived.
//
// This file moves whole messages; the encoding is CMsgSocket's (memory only)
// and the byte transfers with a time budget are the transport's.
#include <korvane/CMsgSocket.h>
#include <korvane/platform/DStr.h>

#include <cstdlib>
#include <cstring>

#include "diag/Log.h"
#include "net/Transport.h"
#include "platform/DebugOutput.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"
#include "protocol/WireHeader.h"

namespace {

// Budgets of the exchange, in milliseconds.
const DWORD kSendBudgetMs = 500;          // a whole message
const DWORD kRetryPauseMs = 100;          // before sending a refused message again
const DWORD kHeaderBudgetMs = 2000;       // reading a header
const DWORD kSmallBodyBudgetMs = 5000;    // reading a body below kLargeBody bytes
const DWORD kLargeBodyBudgetMs = 10000;   // reading a larger body
const std::uint32_t kLargeBody = 10000;
const DWORD kAcceptBudgetMs = 1000;       // sending the acknowledgement of a good message
const DWORD kRefuseBudgetMs = 2000;       // sending the refusal of an implausible header
const DWORD kDrainBudgetMs = 100;         // each read of the drain after a refusal
const int kDrainChunk = 64;
// The drain stops after this many bytes even if the peer keeps sending, so a
// peer that streams garbage cannot hold the receiving thread forever.
const int kDrainMaxBytes = 256000 + KVN_TAILLE_ENTETE;

// An acknowledgement (fonction 1) or refusal (fonction 0) of `received`.
void SendAckHeader(SOCKET sock, const CEnteteMsgSocket& received, signed char fonction,
                   DWORD budgetMs) {
    CEnteteMsgSocket ack;
    ack.nIdApplication = received.nIdApplication;
    ack.nIdConnexion = received.nIdConnexion;
    ack.nFonction = fonction;
    ack.nNbParam = 0;
    ack.nTailleData = 0;
    ack.bUnicode = 0;  // never read by the receiving side
    BYTE bytes[KVN_TAILLE_ENTETE];
    EncodeEntete(ack, bytes);
    SockSend(sock, reinterpret_cast<const char*>(bytes), KVN_TAILLE_ENTETE, budgetMs);
}

// Reads and drops what follows an implausible header, until a read brings
// nothing or fails: the stream cannot be resynchronised, only emptied.
void Drain(SOCKET sock) {
    char scrap[kDrainChunk];
    int total = 0;
    while (total < kDrainMaxBytes) {
        int n = SockReceive(sock, scrap, kDrainChunk, kDrainBudgetMs);
        if (n <= 0) break;  // silence, the peer's close, or a socket error
        total += n;
    }
}

}  // namespace

int CMsgSocket::SendMessageW(SOCKET sock, int unicode, int timeOutAck) {
    if (!m_bMessagePret) CreateMessage(unicode);
    if (!m_bMessagePret) return 0;

    int attempts = 0;
    int result = 0;
    bool again = true;
    bool first = true;
    while (again) {
        again = false;
        if (!first) {
            ODS(L"%ls", L"Retry sur CMsgSocket::SendMessage    ");
            KvnSleep(kRetryPauseMs);
        }
        first = false;

        int sent = SockSend(sock, reinterpret_cast<const char*>(m_pMessage), m_nTailleMessage,
                            kSendBudgetMs);
        if (sent <= 0) {
            result = KVN_ERROR_SOCKET_CLOSED;
        } else {
            // The acknowledgement wait grows with the message: half a
            // millisecond per parameter once that exceeds nTimeOutAck.
            int wait = timeOutAck;
            if (wait < 0) {
                int perParam = static_cast<int>(m_entete.nNbParam * 0.5);
                wait = m_paramComm.nTimeOutAck > perParam ? m_paramComm.nTimeOutAck : perParam;
            }
            int ack = AttenteAck(sock, wait);
            if (ack == KVN_ACK) return 1;
            ++attempts;
            DStr line;
            line.Printf(L"\r\nCode erreur sur attente Ack : %d,TimeOut : %d", ack, wait);
            KvnDebugOutput(line);
            if (ack == -2) {
                // No acknowledgement at all: the service may or may not have
                // processed the message; sending it again could run it twice.
                result = KVN_ERROR_SOCKET_CLOSED;
            } else {
                result = 0;
                again = true;
            }
        }
        if (attempts >= m_paramComm.nNbRetrySend) return KVN_ERROR_SOCKET_CLOSED;
    }
    return result;
}

int CMsgSocket::AttenteAck(SOCKET sock, int timeOut) {
    BYTE bytes[KVN_TAILLE_ENTETE] = {};
    int n = SockReceiveReply(sock, reinterpret_cast<char*>(bytes), KVN_TAILLE_ENTETE,
                             static_cast<DWORD>(timeOut));
    if (n == KVN_TAILLE_ENTETE) return static_cast<signed char>(bytes[6]);
    WriteLogF(4,
              L"AttenteAck: time-out Error on ACK reception. Wanted %d bytes,  Received %d bytes, "
              L"TimeOut = %d  Sock = %d, Code = %d",
              KVN_TAILLE_ENTETE, n, timeOut, static_cast<int>(sock), KvnSocketError());
    return -2;
}

int CMsgSocket::ReceiveMessage(SOCKET sock) {
    int attempts = 0;
    bool acknowledged = false;
    bool again = false;
    int bodyRead = 0;
    ClearMessage();

    do {
        again = false;
        acknowledged = false;
        bodyRead = 0;

        BYTE headerBytes[KVN_TAILLE_ENTETE] = {};
        int n = SockReceive(sock, reinterpret_cast<char*>(headerBytes), KVN_TAILLE_ENTETE,
                            kHeaderBudgetMs);
        if (n < KVN_TAILLE_ENTETE) {
            WriteLogF(4,
                      L"ReceiveMessage: erreur lors de la lecture entete (sock %d) %d bytes lus "
                      L"(essais %d)",
                      static_cast<int>(sock), n, attempts);
        } else {
            CEnteteMsgSocket entete;
            DecodeEntete(headerBytes, entete);
            if (!m_IsEnteteMessageOk(&entete)) {
                SendAckHeader(sock, entete, 0, kRefuseBudgetMs);
                WriteLogF(4,
                          L"ReceiveMessage: erreur lors de la lecture entete (sock %d) -> valeurs "
                          L"incomprehensibles",
                          static_cast<int>(sock));
                Drain(sock);
                ClearMessage();
                return 0;
            }

            m_entete = entete;
            m_nNbParam = entete.nNbParam;
            BYTE* body = nullptr;
            if (entete.nTailleData > 0) {
                // The header check bounds nTailleData (256000), so this
                // allocation is bounded too.
                body = static_cast<BYTE*>(std::malloc(entete.nTailleData));
                if (body) {
                    DWORD budget = entete.nTailleData < kLargeBody ? kSmallBodyBudgetMs
                                                                   : kLargeBodyBudgetMs;
                    bodyRead = SockReceive(sock, reinterpret_cast<char*>(body),
                                           static_cast<int>(entete.nTailleData), budget);
                    if (bodyRead < 0) bodyRead = 0;
                }
            }

            if (static_cast<std::uint32_t>(bodyRead) != entete.nTailleData) {
                WriteLogF(4,
                          L"ReceiveMessage: erreur lors de la lecture des donnees du message (sock "
                          L"%d) %d bytes lus (essais %d)",
                          static_cast<int>(sock), bodyRead, attempts);
            } else if (entete.nTailleData > 0) {
                if (AnalyseMessage(entete, body)) {
                    SendAckHeader(sock, entete, KVN_ACK, kAcceptBudgetMs);
                    acknowledged = true;
                } else {
                    if (GetLogLevel() >= 4) {
                        DStr line;
                        line.Printf(L"ReceiveMessage : erreur lors de la lecture des donnees du "
                                    L"message (sock %d) %d bytes lus (essais %d)",
                                    static_cast<int>(sock), bodyRead, attempts);
                        WriteLog(line, 4);
                        ODS(L"%ls", line.GetString());
                    }
                    // Nothing is sent: the sender's wait runs out and it sends again.
                    ++attempts;
                    again = true;
                }
            } else if (entete.nFonction != KVN_ACK) {
                m_entete.nNbParam = 0;
                m_nNbParam = 0;
                SendAckHeader(sock, entete, KVN_ACK, kAcceptBudgetMs);
                acknowledged = true;
            } else {
                // An acknowledgement that nobody is waiting for.
                KvnDebugOutput(L"\r\nReception d'un Ack sans traitement    ");
            }
            std::free(body);
        }

        if (attempts >= m_paramComm.nNbRetrySend || !again) {
            if (acknowledged) return KVN_TAILLE_ENTETE + bodyRead;
            ClearMessage();
            return KVN_TAILLE_ENTETE;
        }
        if (acknowledged) return KVN_TAILLE_ENTETE + bodyRead;
    } while (true);
}
