/// \file
/// CEnteteMsgSocket and CMsgSocket: one message of the wire format shared with
/// the Korvane service, its encoder and decoders, and its acknowledged
/// exchange over a socket.
///
/// A message is a packed 16-byte header followed by typed parameter records;
/// every integer is little-endian. The encoder and decoders work on memory
/// only; SendMessage, AttenteAck and ReceiveMessage move the bytes over a
/// socket and handle the acknowledgements. CKorvaneClient uses them inside;
/// an application needs them only to speak the protocol itself (a stand-in
/// for the service, a tool).
#ifndef KORVANE_CMSGSOCKET_H
#define KORVANE_CMSGSOCKET_H

#include <cstddef>
#include <cstdint>

#include <korvane/CParam.h>
#include <korvane/CParamComm.h>
#include <korvane/KvnDefs.h>
#include <korvane/KvnExport.h>
#include <korvane/platform/CPtrArray.h>
#include <korvane/platform/KvnTypes.h>

#pragma pack(push, 1)
/// The 16-byte header of every message, in its wire layout (packed). A
/// receiver refuses a header whose function code is unknown, whose
/// application id is outside 0 to 128000, whose count is above 50000 or whose
/// body is above 256000 bytes.
struct KVN_API CEnteteMsgSocket {
    std::int32_t nIdApplication; ///< 0 to 128000 on receipt
    std::uint16_t nIdConnexion;  ///< the connection handle; 0 on the main link
    signed char nFonction;       ///< function code (KVN_...)
    std::int32_t nNbParam;       ///< number of parameter records in the body
    std::uint32_t nTailleData;   ///< body length in bytes, header excluded
    signed char bUnicode;        ///< 1: texts are UTF-16LE; 0: one byte a character

    /// Every field 0.
    CEnteteMsgSocket();
    CEnteteMsgSocket(const CEnteteMsgSocket& src) = default;
    /// Copies the 16 bytes.
    CEnteteMsgSocket& operator=(const CEnteteMsgSocket& src);
};
#pragma pack(pop)
static_assert(sizeof(CEnteteMsgSocket) == 16, "the message header is 16 bytes");

/// Bytes of a message header.
#define KVN_TAILLE_ENTETE 16

/// One message: its header, its parameters and the bytes encoded from them
/// or decoded into them. The message owns its parameters and its buffer. An
/// object is reused: SetEntete, AnalyseMessage and ReceiveMessage clear it
/// first. No lock: one thread at a time, and a socket is exchanged on by one
/// thread at a time (the acknowledgement of a send is read from the same
/// socket).
class KVN_API CMsgSocket {
public:
    /// An empty message: no header (application id and function -1), no
    /// parameter.
    CMsgSocket();
    /// Frees the parameters and the buffer.
    virtual ~CMsgSocket();

    CMsgSocket(const CMsgSocket&) = delete;
    CMsgSocket& operator=(const CMsgSocket&) = delete;

    /// \name Building
    ///@{

    /// Clears the message, then sets application id, function (low 8 bits)
    /// and connection id (low 16 bits).
    void SetEntete(int idApplication, int fonction, int idConnexion);
    /// Sets the function code (low 8 bits) alone.
    void SetFonction(int fonction);
    /// Builds a parameter from a raw value read during the call and appends
    /// it, or puts it first when bFirst is 1. size is the number of
    /// characters of a text (a text stops at its terminator, and beyond 32767
    /// UTF-16 code units keeps its first 32767); it is not read for the other
    /// types. A null value makes a NULL parameter; an unknown type a NULL
    /// SQL_C_CHAR. The texts and SQL_C_SBIGINT are also known by their byte
    /// (248, 231), SQL_C_UBIGINT and SQL_C_GUID by their signed codes only. 1,
    /// or 0 when out of memory.
    int AddParametre(int type, unsigned int size, const void* value, int bFirst = 0);
    /// Appends param, made with new; the message takes ownership. 1, or 0 for
    /// a null param or when out of memory (param is then freed).
    int AddParametre(CParam* param);
    /// As AddParametre(CParam*), putting it first.
    int AddFirstParametre(CParam* param);
    /// AddParametre(type, size, value, 1).
    int AddFirstParametre(int type, unsigned int size, const void* value);
    ///@}

    /// \name Encoding and decoding
    ///@{

    /// Encodes header and parameters (unicode: -1 or non-zero for UTF-16
    /// text, 0 for one byte a character); the NULL parameters' nTaille become
    /// -1. 1, or 0 without a header or out of memory.
    int CreateMessage(int unicode);
    /// Decodes the body `data` described by `entete`: 1, or 0 when data is
    /// null or memory ran out (the message is then empty). The caller
    /// guarantees entete.nTailleData bytes at data; within them, records that
    /// do not fit or cannot be read are dropped or end the decoding, never
    /// read beyond the body, and GetNbParametre counts the parameters kept.
    /// The decoded parameters and their texts lie in the message's own
    /// memory: read or copy them, never assign to them.
    int AnalyseMessage(CEnteteMsgSocket& entete, kvn::BYTE* data);
    /// As AnalyseMessage: the first 16 bytes of message are the header, the
    /// body follows; the caller guarantees 16 + nTailleData bytes at message.
    int AnalyseMessageComplet(kvn::BYTE* message);
    /// Frees the parameters and the buffer; the message has no header any
    /// more (its connection id and text flag are kept).
    void ClearMessage();

    /// The whole message, header and body, as encoded or as received, and its
    /// length in *pLen (when pLen is not null); null and 0 when there is
    /// none. The bytes stay the message's until it changes. Exported under its
    /// wide spelling, as the Windows headers rename it.
    kvn::BYTE* GetMessageW(int* pLen);
#ifndef GetMessage
    /// GetMessageW.
    kvn::BYTE* GetMessage(int* pLen) { return GetMessageW(pLen); }
#endif
    ///@}

    /// \name Accessors
    ///@{

    /// The function code, sign-extended; -1 for an empty message.
    int GetFonction();
    /// The header's application id.
    int GetIdApplication();
    /// The header's connection id, zero-extended.
    int GetIdConnexion();
    /// The number of parameters (after a decoding, those kept).
    int GetNbParametre();
    /// The header's text flag: 1 for UTF-16 texts.
    int GetMsgUnicode();
    /// Type byte of parameter i as 0 to 255; 0 outside the list (negative i
    /// too).
    int GetTypeParametre(int i);
    /// 1 and *param = parameter i (still owned by the message; a decoded one
    /// is read or copied, never assigned to), else 0.
    int GetParametre(int i, CParam** param);
    /// Copies *p into the message's communication parameters, whose
    /// acknowledgement wait and attempt count SendMessage and ReceiveMessage
    /// use (nothing for a null p).
    void SetParamComm(CParamComm* p);
    /// Copies the message's communication parameters into *p (nothing for a
    /// null p).
    void GetParamComm(CParamComm* p);
    ///@}

    /// \name Exchange
    /// These block the calling thread on sock, each wait bounded.
    ///@{

    /// Sends the message (encoding it first if it is not yet) and waits for
    /// its acknowledgement: 1 acknowledged, 0 nothing to send (no header),
    /// -53 (KVN_ERROR_SOCKET_CLOSED) when the send failed, no acknowledgement
    /// came, or every attempt was refused (a refused message is sent again
    /// after 100 ms, nNbRetrySend attempts in all). timeOutAck is the
    /// acknowledgement wait in ms; below 0, the larger of nTimeOutAck and half
    /// a millisecond a parameter. The message stays encoded whatever the
    /// result. Exported under its wide spelling, as the Windows headers rename
    /// it.
    int SendMessageW(kvn::SOCKET sock, int unicode, int timeOutAck);
#ifndef SendMessage
    /// SendMessageW.
    int SendMessage(kvn::SOCKET sock, int unicode, int timeOutAck) {
        return SendMessageW(sock, unicode, timeOutAck);
    }
#endif
    /// The function code of the 16-byte header received within timeOut ms
    /// (1 accepted, 0 refused), or -2 when none came.
    int AttenteAck(kvn::SOCKET sock, int timeOut);
    /// Receives, checks, decodes and acknowledges one message, waiting up to
    /// 2 s for its header and 5 or 10 s for its body: 0 when the header was
    /// refused (the refusal is sent and the stream drained), 16 when nothing
    /// was kept or the message has no body, 16 + body length for a decoded
    /// message. GetFonction then tells a message received (its code) from none
    /// (-1).
    int ReceiveMessage(kvn::SOCKET sock);
    ///@}

    /// \cond INTERNAL

protected:
    int m_GetParam(unsigned int i, CParam** param);
    // Header plausibility: 1 or 0.
    int m_IsEnteteMessageOk(CEnteteMsgSocket* entete);
    // Writes the message to the log, field by field (log level 6 and more).
    void AfficheMessage(const wchar_t* titre);

    CEnteteMsgSocket m_entete;
    kvn::BYTE* m_pMessage; // whole message (header and body), encoded or received; new[]
    int m_nTailleMessage;  // nTailleData + 16
    CPtrArray m_listParam; // CParam*, owned
    int m_nNbParam;
    kvn::Bool m_bMessagePret;
    CParamComm m_paramComm;
    // A received message: the block holding the copy of the message (where
    // m_pMessage points until a new encoding), the decoded parameters and
    // their texts; new[].
    kvn::BYTE* m_pBloc;
    std::size_t m_nTailleBloc;
    /// \endcond
};

/// Writes the name of a function code into nom ("KVN_" in front when
/// bPrefixe is non-zero; "INCONNUE" for an unknown code) and returns nom,
/// which needs room for 29 characters. Any thread.
KVN_API wchar_t* GetNomFonction(int fonction, wchar_t* nom, int bPrefixe);

#endif
