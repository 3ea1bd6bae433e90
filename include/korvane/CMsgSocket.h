// CEnteteMsgSocket and CMsgSocket: one message of the wire format shared with
// the Korvane service, its encoder and decoders, and its acknowledged
// exchange over a socket.
//
// A message is a packed 16-byte header followed by typed parameter records;
// every integer is little-endian. The encoder and decoders work on memory
// only; SendMessage, AttenteAck and ReceiveMessage move the bytes over a
// socket and handle the acknowledgements.
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
struct KVN_API CEnteteMsgSocket {
    std::int32_t nIdApplication; // 0 to 128000 on receipt
    std::uint16_t nIdConnexion;  // the connection handle; 0 on the main link
    signed char nFonction;       // function code (KVN_...)
    std::int32_t nNbParam;       // number of parameter records in the body
    std::uint32_t nTailleData;   // body length in bytes, header excluded
    signed char bUnicode;        // 1: texts are UTF-16LE; 0: one byte a character

    CEnteteMsgSocket();
    CEnteteMsgSocket(const CEnteteMsgSocket& src) = default;
    CEnteteMsgSocket& operator=(const CEnteteMsgSocket& src);
};
#pragma pack(pop)
static_assert(sizeof(CEnteteMsgSocket) == 16, "the message header is 16 bytes");

#define KVN_TAILLE_ENTETE 16

class KVN_API CMsgSocket {
public:
    CMsgSocket();
    virtual ~CMsgSocket();

    CMsgSocket(const CMsgSocket&) = delete;
    CMsgSocket& operator=(const CMsgSocket&) = delete;

    // ---- Building ---------------------------------------------------------
    // Clears the message, then sets application id, function (low 8 bits) and
    // connection id (low 16 bits).
    void SetEntete(int idApplication, int fonction, int idConnexion);
    void SetFonction(int fonction);
    // Builds a parameter from a raw value (size: characters of a text, read
    // for the text types only; a null value makes a NULL parameter) and
    // appends it, or puts it first when bFirst is 1. 1, or 0 when out of memory.
    int AddParametre(int type, unsigned int size, const void* value, int bFirst = 0);
    // Appends a parameter; the message takes ownership. Returns 1.
    int AddParametre(CParam* param);
    int AddFirstParametre(CParam* param);
    int AddFirstParametre(int type, unsigned int size, const void* value);

    // ---- Encoding and decoding ----------------------------------------------
    // Encodes header and parameters (unicode: -1 or non-zero for UTF-16 text,
    // 0 for one byte a character). 1, or 0 without a header or out of memory.
    int CreateMessage(int unicode);
    // Decodes the body `data` described by `entete`; 0 when data is null.
    // The caller guarantees entete.nTailleData bytes at data; within them,
    // records that do not fit or cannot be read are dropped or end the
    // decoding, never read beyond the body.
    int AnalyseMessage(CEnteteMsgSocket& entete, kvn::BYTE* data);
    // The first 16 bytes of message are the header, the body follows; the
    // caller guarantees 16 + nTailleData bytes at message.
    int AnalyseMessageComplet(kvn::BYTE* message);
    void ClearMessage();

    // The encoded message and its length, or null and 0 when not encoded.
    // Exported under its wide spelling, as the Windows headers rename it.
    kvn::BYTE* GetMessageW(int* pLen);
#ifndef GetMessage
    kvn::BYTE* GetMessage(int* pLen) { return GetMessageW(pLen); }
#endif

    // ---- Accessors ------------------------------------------------------------
    int GetFonction();       // sign-extended; -1 for an empty message
    int GetIdApplication();
    int GetIdConnexion();    // zero-extended
    int GetNbParametre();
    int GetMsgUnicode();
    // Type byte of parameter i as 0 to 255; 0 outside the list (negative i too).
    int GetTypeParametre(int i);
    // 1 and *param = parameter i (still owned by the message; a decoded one
    // is read or copied, never assigned to), else 0.
    int GetParametre(int i, CParam** param);
    void SetParamComm(CParamComm* p);
    void GetParamComm(CParamComm* p);

    // ---- Exchange ---------------------------------------------------------------
    // Sends the message (encoding it first if needed) and waits for its
    // acknowledgement: 1 acknowledged, 0 nothing to send, -53 failed.
    // timeOutAck < 0 selects the message's own wait. Exported under its wide
    // spelling, as the Windows headers rename it.
    int SendMessageW(kvn::SOCKET sock, int unicode, int timeOutAck);
#ifndef SendMessage
    int SendMessage(kvn::SOCKET sock, int unicode, int timeOutAck) {
        return SendMessageW(sock, unicode, timeOutAck);
    }
#endif
    // The function code of the 16-byte header received, or -2 when none came.
    int AttenteAck(kvn::SOCKET sock, int timeOut);
    // Receives, checks, decodes and acknowledges one message: 0 refused,
    // 16 nothing kept or no body, 16 + body length for a decoded message.
    int ReceiveMessage(kvn::SOCKET sock);

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
};

// Name of a function code ("KVN_" in front when bPrefixe is non-zero);
// "INCONNUE" for an unknown code. nom needs room for 29 characters.
KVN_API wchar_t* GetNomFonction(int fonction, wchar_t* nom, int bPrefixe);

#endif
