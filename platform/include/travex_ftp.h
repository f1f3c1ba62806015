/// @file
/// FTP/FTPS client layer (RFC 959, RFC 2428, RFC 4217): asynchronous downloads with notifications.
///
/// Each handle has a thread of its own, on which its downloads run one after the other, in the
/// order in which they were accepted, over one control connection. Handles are independent of each
/// other. One notification thread calls back for all of them, so that a slow callback delays no
/// transfer. Every function may be called on any thread, also within a callback, and none waits for
/// the network. Nothing throws. Result codes: tagTRAVEX_FTP_RESULT.
///
/// A download is written to a temporary file in the target directory, which replaces the target by
/// rename once it is complete, checked and flushed. A failed download leaves the target unchanged.
#ifndef TRAVEX_FTP_H
#define TRAVEX_FTP_H

#include <stddef.h>
#include <stdint.h>

/// Result codes: of calls from 1 to 9, of failed transfers from 16.
enum tagTRAVEX_FTP_RESULT
{
    TRAVEX_FTP_OK = 0,            ///< success
    TRAVEX_FTP_ERR_PARAM = 1,     ///< a null, empty, over-long or otherwise unusable argument
    TRAVEX_FTP_ERR_HANDLE = 2,    ///< no live handle
    TRAVEX_FTP_ERR_NOT_INIT = 3,  ///< TRAVEX_FTP_Init has not been called
    TRAVEX_FTP_ERR_NOT_SET = 4,   ///< control or data parameters were not set on the handle
    TRAVEX_FTP_ERR_CIPHER = 5,    ///< a cipher suite that the TLS library does not know
    TRAVEX_FTP_ERR_TRUST = 6,     ///< trusted certificates that cannot be used
    TRAVEX_FTP_ERR_SYSTEM = 7,    ///< memory or another resource of the system ran out

    TRAVEX_FTP_ERR_CONNECT = 16,  ///< no connection: zero address, refused, unreachable, no service
    TRAVEX_FTP_ERR_TLS = 17,      ///< TLS refused or its handshake failed
    TRAVEX_FTP_ERR_CERT = 18,     ///< the certificate was not accepted
    TRAVEX_FTP_ERR_LOGIN = 19,    ///< user or password not accepted
    TRAVEX_FTP_ERR_FILE = 20,     ///< the server refused the file
    TRAVEX_FTP_ERR_REPLY = 21,    ///< an unexpected reply, or one that is too long
    TRAVEX_FTP_ERR_TIMEOUT = 22,  ///< a time limit was exceeded
    TRAVEX_FTP_ERR_PARTIAL = 23,  ///< the file ended early, or its size is not the one announced
    TRAVEX_FTP_ERR_TOO_LARGE = 24,   ///< the file is larger than the limit
    TRAVEX_FTP_ERR_LOCAL_FILE = 25,  ///< the local file cannot be written
    TRAVEX_FTP_ERR_TRANSFER = 26     ///< any other failure of the transfer
};

/// Steps of a transfer, in their order; in a failure, the step that failed.
enum tagTRAVEX_FTP_STEP
{
    TRAVEX_FTP_STEP_NONE = 0,        ///< before the first step, or the system ran out of a resource
    TRAVEX_FTP_STEP_LOCAL_FILE = 1,  ///< the local file: opened, written, renamed
    TRAVEX_FTP_STEP_CONNECT = 2,     ///< the control connection
    TRAVEX_FTP_STEP_GREETING = 3,    ///< the server's first reply
    TRAVEX_FTP_STEP_AUTH = 4,        ///< AUTH TLS
    TRAVEX_FTP_STEP_TLS = 5,         ///< the control channel's handshake and certificate
    TRAVEX_FTP_STEP_LOGIN = 6,       ///< USER and PASS
    TRAVEX_FTP_STEP_PROTECT = 7,     ///< PBSZ and PROT
    TRAVEX_FTP_STEP_TYPE = 8,        ///< TYPE I
    TRAVEX_FTP_STEP_PASSIVE = 9,     ///< EPSV or PASV
    TRAVEX_FTP_STEP_DATA_CONNECT = 10,  ///< the data connection
    TRAVEX_FTP_STEP_SIZE = 11,          ///< SIZE
    TRAVEX_FTP_STEP_RETRIEVE = 12,      ///< RETR, until the server begins to send
    TRAVEX_FTP_STEP_DATA_TLS = 13,      ///< the data channel's handshake and certificate
    TRAVEX_FTP_STEP_RECEIVE = 14,       ///< the file's bytes
    TRAVEX_FTP_STEP_CONFIRM = 15        ///< the server's last reply for the file, usually 226
};

/// Details of a failure beyond code, step and reply.
enum tagTRAVEX_FTP_DETAIL
{
    TRAVEX_FTP_DETAIL_NONE = 0,        ///< nothing
    TRAVEX_FTP_DETAIL_CERT_NAME = 1,   ///< the certificate is for another name or address
    TRAVEX_FTP_DETAIL_CERT_DATES = 2,  ///< the server's certificate has expired or is not yet valid
    TRAVEX_FTP_DETAIL_TLS_VERSION = 3,  ///< the server requires another version of TLS
    TRAVEX_FTP_DETAIL_TLS_SUITES = 4    ///< no cipher suite or other parameter in common
};

/// Kinds of notification.
enum tagTRAVEX_FTP_NOTIFY_TYPE
{
    TRAVEX_FTP_NOTIFY_SUCCESS = 0,  ///< the file is complete and in place
    TRAVEX_FTP_NOTIFY_FAILED = 3,   ///< the transfer failed; pstErrInfo says why
    TRAVEX_FTP_NOTIFY_OVER = 12     ///< follows each success
};

/// A handle holds parameters and the downloads that were started with them. Null: no handle.
typedef struct tagTRAVEX_FTP_HANDLE* TRAVEX_FTP_HANDLE;

/// Called once per TLS connection of a control channel, after the layer's own checks, on the
/// transfer thread, with the server's address as text and the certificate's subject (both
/// const char*, valid for the call). Non-zero vetoes the connection; 0 never overrules a failed
/// check. TRAVEX_FTP_CloseHandle is the only function of the layer that it may call.
typedef int (*TRAVEX_FTP_VERIFY_CB)(void* pServer, void* pSubject);

/// Control parameters. Zero the whole record first.
struct tagTRAVEX_FTP_S_CTRL_PARAM
{
    unsigned int ulServerType;      ///< 0 plain FTP; 1 FTPS, control and data channel encrypted:
                                    ///< explicit (AUTH TLS), implicit on port 990
    unsigned int ulReserved1;       ///< not read
    unsigned int ulServerIpType;    ///< 0 IPv4, 1 IPv6
    unsigned int ulReserved2;       ///< not read
    unsigned char aucServerIp[16];  ///< network byte order, an IPv4 address in the first 4; a zero
                                    ///< address is accepted here, and its transfers fail
    unsigned int ulServerPort;      ///< 0: 21
    unsigned int ulCtrlOption1;     ///< carried, no effect
    char acUserName[128];           ///< NUL-terminated, not empty
    char acPassword[128];           ///< NUL-terminated, not empty
    unsigned char aucReserved3[128];  ///< not read
    unsigned int ulCtrlOption2;       ///< carried, no effect
    unsigned int ulCtrlOption3;       ///< carried, no effect
    char acWorkDir[128];              ///< local directory, not empty
    unsigned char aucReserved4[8];    ///< not read
    const char* pcFtpCtrlInfo;        ///< trusted certificates: a path of a PEM file or directory
                                ///< of certification authorities; "system"; or key=value pairs
                                ///< separated by ";": ca= (default: system), name= (DNS
                                ///< names separated by ",", see ulCertVerify), tls=implicit.
                                ///< Read for FTPS, the authorities' files when ulCertVerify
                                ///< is 1
    unsigned int ulTlsOption1;           ///< carried, no effect
    unsigned short usTlsOption2;         ///< carried, no effect
    unsigned int ulTlsOption3;           ///< carried, no effect
    TRAVEX_FTP_VERIFY_CB pfnFtpsVerify;  ///< may be null
    const int* piCipherList;       ///< the suites offered, 0x03000000 + IANA number; the protocol
                                   ///< versions follow from them. Read for FTPS
    unsigned int ulCipherNum;      ///< how many; 0: the TLS library's default suites
    unsigned int ulReserved5;      ///< not read
    unsigned int ulLocalIpType;    ///< 0 IPv4, 1 IPv6
    unsigned int ulReserved6;      ///< not read
    unsigned char aucLocalIp[16];  ///< address to connect from; all zero: the system's choice
    unsigned int ulCertVerify;     ///< 1: chain, dates and identity are checked; 0: they are not.
                                   ///< The certificate must be for one of, first that applies:
                                   ///< the names of pcFtpCtrlInfo; what
                                   ///< TRAVEX_FTP_SetServerName added for the address; the name
                                   ///< or address text that this thread converted to the address
                                   ///< (OSAK_GetAddrInfo, OSAK_Inet_Pton) since its last
                                   ///< TRAVEX_FTP_SetCtrlParam; the address
    unsigned int ulReserved7;      ///< not read
};

/// Data parameters: carried, no effect.
struct tagTRAVEX_FTP_S_DATA_PARAM
{
    unsigned int ulDataOption1;    ///< carried, no effect
    unsigned int ulDataOption2;    ///< carried, no effect
    unsigned int ulDataOption3;    ///< carried, no effect
    unsigned int ulDataOption4;    ///< carried, no effect
    unsigned char aucReserved[8];  ///< not read
};

/// Why a transfer failed.
struct tagTRAVEX_FTP_S_ERR_INFO
{
    unsigned int ulRet;     ///< tagTRAVEX_FTP_RESULT
    unsigned int ulStep;    ///< tagTRAVEX_FTP_STEP
    unsigned int ulReply;   ///< number of the server's reply that caused it; 0: none did
    unsigned int ulDetail;  ///< tagTRAVEX_FTP_DETAIL
    char acReason[496];     ///< a sentence, without the server; printable, NUL-terminated
};

/// A notification.
struct tagTRAVEX_FTP_S_NOTIFY_DATA
{
    unsigned int ulTaskID;                 ///< as TRAVEX_FTP_AsynDownloadFile stored it
    char DownFileName[256];                ///< the server file, byte for byte as it was given
    unsigned int ulType;                   ///< tagTRAVEX_FTP_NOTIFY_TYPE
    tagTRAVEX_FTP_S_ERR_INFO* pstErrInfo;  ///< of a failure, else null
};

/// Runs on the layer's one notification thread; the record and pstErrInfo stay valid until it
/// returns. pUserData is null. A success is a 0 and then a 12, a failure one 3.
typedef void (*TRAVEX_FTP_NOTIFY_CB)(void* pUserData, tagTRAVEX_FTP_S_NOTIFY_DATA* pstNotify);

/// Kinds of observation.
enum tagTRAVEX_FTP_OBSERVED
{
    TRAVEX_FTP_OBSERVED_PROGRESS = 0,  ///< bytes have arrived, at most 0.1 s ago; at most ten a
                                       ///< second per task
    TRAVEX_FTP_OBSERVED_SUCCESS = 1,   ///< before the task's 0
    TRAVEX_FTP_OBSERVED_FAILED = 2,    ///< before the task's 3
    TRAVEX_FTP_OBSERVED_REFUSED = 3,   ///< parameters or a download were refused: there is no task
    TRAVEX_FTP_OBSERVED_ACCEPTED = 4,  ///< a task was created; before anything else of it
    TRAVEX_FTP_OBSERVED_STEP = 5       ///< the dialogue has reached another step, ulStep, at most
                                       ///< 0.1 s ago; lines of replies alone give none. A step
                                       ///< that is reached again, as in a second attempt, is
                                       ///< observed again
};

/// Times and peer of a transfer, as far as it got. Times are microseconds from the beginning of its
/// last attempt; 0: not reached, or done on the connection before the transfer began.
struct tagTRAVEX_FTP_S_TIMINGS
{
    uint64_t ullConnected;       ///< the control connection was open
    uint64_t ullSecured;         ///< its TLS handshake was complete
    uint64_t ullLoggedIn;        ///< user and password were accepted
    uint64_t ullOpened;          ///< the server began to send the file
    uint64_t ullEnded;           ///< the outcome was known and a complete file on disk
    int64_t llCertificateUntil;  ///< end of the certificate's validity, s since 1970; 0: none
    char acTlsVersion[16];       ///< of the control channel: "TLSv1.2"; empty: no TLS, also below
    char acTlsSuite[64];         ///< the suite's name in RFCs and the IANA registry
    char acSubject[256];         ///< the certificate's (RFC 4514), also of one not accepted
    char acNames[512];           ///< DNS names and addresses of its subjectAltName, in its order,
                                 ///< separated by ", "; ends in ", ..." if not all of them fit.
                                 ///< Backslash, comma and bytes that are not visible ASCII are
                                 ///< written as a backslash and two hexadecimal digits
    unsigned int ulReused;       ///< 1: the control connection served an earlier transfer
    unsigned int ulDataResumed;  ///< 1: the data channel resumed the control channel's TLS session
};

/// An observation.
struct tagTRAVEX_FTP_S_OBSERVATION
{
    unsigned int ulKind;       ///< tagTRAVEX_FTP_OBSERVED
    unsigned int ulTaskID;     ///< 0 when refused
    const char* pcServer;      ///< "192.0.2.1:21" or "[2001:db8::1]:21"; empty when not known
    const char* pcServerFile;  ///< empty when not known
    uint64_t ullBytes;         ///< received so far; of a step 0
    uint64_t ullTotal;         ///< size the server announced; until then, and of a step,
                               ///< TRAVEX_FTP_SIZE_UNKNOWN
    unsigned int ulRet;        ///< tagTRAVEX_FTP_RESULT of a failure or refusal
    unsigned int ulStep;       ///< of a failure, as in tagTRAVEX_FTP_S_ERR_INFO; of a step: which;
                               ///< else 0
    unsigned int ulReply;      ///< of a failure, as there, else 0
    unsigned int ulDetail;     ///< the same
    const char* pcReason;      ///< the reason of a failure or refusal in words, else empty
    const tagTRAVEX_FTP_S_TIMINGS* pstTimings;  ///< of a success or failure, else null
};

/// The value of ullTotal when no size is known.
#define TRAVEX_FTP_SIZE_UNKNOWN UINT64_MAX

/// The record is valid for the call. Runs on the notification thread; for an accepted or refused
/// task, on the calling thread before the call returns.
typedef void (*TRAVEX_FTP_OBSERVER_CB)(void* pUser, const tagTRAVEX_FTP_S_OBSERVATION* pstSeen);

/// Limits that a program sets for its process. 0: the operator's value, if the environment has one
/// (docs/library.md), else the layer's default.
struct tagTRAVEX_FTP_S_LIMITS
{
    uint64_t ullFileBytes;       ///< largest file, bytes; default 16 GiB. 1: only asks whether the
                                 ///< server sends the file, and logs a larger one as a notice
    uint64_t ullReplyBytes;      ///< all replies to one transfer, bytes; default 65,536
    uint64_t ullReplyLines;      ///< the same, lines; default 1,000
    uint64_t ullStallBytes;      ///< least that must arrive in ulStallMs, bytes; default 1,024
    unsigned int ulConnectMs;    ///< one TCP connection, control or data; default 10,000 ms
    unsigned int ulHandshakeMs;  ///< one TLS handshake; default 10,000 ms
    unsigned int ulResponseMs;   ///< from a command to its reply's next line; default 20,000 ms
    unsigned int ulStallMs;      ///< window in which ullStallBytes must arrive; default 30,000 ms
    unsigned int ulConfirmMs;    ///< from the last byte to the 226; default 60,000 ms
    unsigned int ulTransferMs;   ///< one whole transfer; default 6 hours
    unsigned int ulIdleMs;       ///< until an idle control connection is closed; default 15,000 ms
    unsigned int ulObserveMs;    ///< between two progress observations; default 100 ms
};

/// A cipher suite that control parameters may name on this system.
struct tagTRAVEX_FTP_S_CIPHER
{
    int iCipher;                 ///< 0x03000000 + IANA number
    const char* pcStandardName;  ///< in RFCs and the IANA registry
    const char* pcOpensslName;   ///< the TLS library's own name
    const char* pcSince;         ///< "TLSv1.3", or the oldest protocol version that has it
};

/// Called within TRAVEX_FTP_ListCiphers, on its thread, once for each suite. pUser: as given there.
typedef void (*TRAVEX_FTP_CIPHER_CB)(void* pUser, const tagTRAVEX_FTP_S_CIPHER* pstCipher);

static_assert(sizeof(void*) != 8 || (sizeof(tagTRAVEX_FTP_S_CTRL_PARAM) == 648 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, ulServerType) == 0 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, ulServerIpType) == 8 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, aucServerIp) == 16 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, ulServerPort) == 32 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, ulCtrlOption1) == 36 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, acUserName) == 40 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, acPassword) == 168 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, ulCtrlOption2) == 424 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, ulCtrlOption3) == 428 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, acWorkDir) == 432 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, pcFtpCtrlInfo) == 568 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, ulTlsOption1) == 576 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, usTlsOption2) == 580 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, ulTlsOption3) == 584 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, pfnFtpsVerify) == 592 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, piCipherList) == 600 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, ulCipherNum) == 608 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, ulLocalIpType) == 616 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, aucLocalIp) == 624 &&
                                     offsetof(tagTRAVEX_FTP_S_CTRL_PARAM, ulCertVerify) == 640),
              "control record layout");
static_assert(sizeof(tagTRAVEX_FTP_S_DATA_PARAM) == 24 &&
                  offsetof(tagTRAVEX_FTP_S_DATA_PARAM, ulDataOption1) == 0 &&
                  offsetof(tagTRAVEX_FTP_S_DATA_PARAM, ulDataOption2) == 4 &&
                  offsetof(tagTRAVEX_FTP_S_DATA_PARAM, ulDataOption3) == 8 &&
                  offsetof(tagTRAVEX_FTP_S_DATA_PARAM, ulDataOption4) == 12,
              "data record layout");
static_assert(offsetof(tagTRAVEX_FTP_S_ERR_INFO, ulRet) == 0, "error record layout");
static_assert(sizeof(void*) != 8 || (sizeof(tagTRAVEX_FTP_S_NOTIFY_DATA) == 272 &&
                                     offsetof(tagTRAVEX_FTP_S_NOTIFY_DATA, ulTaskID) == 0 &&
                                     offsetof(tagTRAVEX_FTP_S_NOTIFY_DATA, DownFileName) == 4 &&
                                     offsetof(tagTRAVEX_FTP_S_NOTIFY_DATA, ulType) == 260 &&
                                     offsetof(tagTRAVEX_FTP_S_NOTIFY_DATA, pstErrInfo) == 264),
              "notification record layout");

extern "C"
{
    /// Starts the layer; a second call changes nothing. 0, or TRAVEX_FTP_ERR_SYSTEM.
    unsigned int TRAVEX_FTP_Init();

    /// Ends the layer: cancels all transfers without a notification, closes all handles and
    /// connections, waits for the notification in progress and joins the layer's threads. Called on
    /// the notification thread it does not wait: the layer is un-initialised at once, its threads
    /// end when the callback has returned, and a later Init, also inside the callback, starts
    /// again. Harmless without Init.
    unsigned int TRAVEX_FTP_UnInit();

    /// Returns a new handle, or null when the layer was not initialised or memory ran out.
    TRAVEX_FTP_HANDLE TRAVEX_FTP_CreateHandle();

    /// Closes a handle: cancels its transfers and returns, never waiting for a notification. A
    /// cancelled task gets no notification. No notification of the handle begins afterwards; one in
    /// progress may end later.
    unsigned int TRAVEX_FTP_CloseHandle(TRAVEX_FTP_HANDLE handle);

    /// Sets the parameters of the downloads started after it. Everything is copied during the call,
    /// trusted certificates and the cipher list included. Refused with a code, a log line and an
    /// observation: empty user name, password or work directory, an unknown suite, unusable
    /// trusted certificates.
    unsigned int TRAVEX_FTP_SetCtrlParam(TRAVEX_FTP_HANDLE handle,
                                         const tagTRAVEX_FTP_S_CTRL_PARAM* param);

    /// Sets the data parameters. Nothing of them is kept: a download only requires that they were
    /// set. Refused with a code when null.
    unsigned int TRAVEX_FTP_SetDataParam(TRAVEX_FTP_HANDLE handle,
                                         const tagTRAVEX_FTP_S_DATA_PARAM* param);

    /// Accepts a download with the parameters as they stand now. serverFile: at most 255 bytes, no
    /// control bytes; absolute with a leading "/", else relative to the login directory; dir: local
    /// directory, relative to acWorkDir unless absolute; localFile: a name without "/".
    /// *taskId, never 0 and unique among live tasks, is set before any notification of the task can
    /// begin, and left unchanged when the download is refused. callback: may be null.
    unsigned int TRAVEX_FTP_AsynDownloadFile(TRAVEX_FTP_HANDLE handle, unsigned int* taskId,
                                             const char* serverFile, const char* dir,
                                             const char* localFile, TRAVEX_FTP_NOTIFY_CB callback);

    /// Adds a name, or an address as text, that the certificate of the server at this address may
    /// carry (see ulCertVerify), from the next TRAVEX_FTP_SetCtrlParam on. ipType: 0 IPv4, 1 IPv6;
    /// an IPv4 address mapped into IPv6 counts as IPv4. name: at most 253 bytes; null removes the
    /// names of this address; a null address removes all, as TRAVEX_FTP_UnInit does. Refused with a
    /// code, and the table left unchanged: without Init, an unknown type, an empty or over-long
    /// name, one with a control byte, an address text with a zone, and more than 65,536 names.
    unsigned int TRAVEX_FTP_SetServerName(unsigned int ipType, const unsigned char* address,
                                          const char* name);

    /// Sets the limits of the process, copied during the call, for transfers that begin after it;
    /// null: as if they were never set. Works without Init. No time is longer than 20 days.
    unsigned int TRAVEX_FTP_SetLimits(const tagTRAVEX_FTP_S_LIMITS* limits);

    /// Sets the one observer of the process, null for none. After it returns the earlier one is no
    /// longer called, unless the caller is that observer. Works without Init.
    void TRAVEX_FTP_SetObserver(TRAVEX_FTP_OBSERVER_CB observer, void* user);

    /// Calls back, during the call, for each cipher suite that control parameters may name, in the
    /// TLS library's order of preference; the record's texts stay valid. Works without
    /// Init. 0, or TRAVEX_FTP_ERR_SYSTEM.
    unsigned int TRAVEX_FTP_ListCiphers(TRAVEX_FTP_CIPHER_CB callback, void* user);

    /// Name and version of the TLS library, such as "OpenSSL 3.0.15 3 Sep 2024". Works without
    /// Init; the text stays valid.
    const char* TRAVEX_FTP_Libraries();

}  // extern "C"

#endif
