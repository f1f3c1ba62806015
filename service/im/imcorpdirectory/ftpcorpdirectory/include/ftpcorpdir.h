/// @file
/// Corporate-directory download service: the client's interface.
///
/// The service fetches a small version file from an FTP or FTPS server, compares its first line
/// with the version it accepted last, and fetches the directory file when that line changed. It
/// repeats the check every ten minutes, tries the next server of the list when one fails, and
/// reports to the client through a callback.
///
///     IFtpCorpDir* service = GetCorpDirInstance();
///     service->CorpDirInit(&log);                      start
///     service->CorpDirDownloadNetaddr(&request, done); first check now, then every ten minutes
///     service->CorpDirUninit();                        stop
///
/// Threads. There is one service in a process. Call its operations from one thread at a time. The
/// callback runs on the service's notification thread, never on yours.
///
/// A second request. CorpDirDownloadNetaddr replaces the data of the earlier request in place,
/// without a lock. It is safe only when nothing of the earlier request is under way: no transfer,
/// no queued check, no callback. Since the timer may queue a check at any time, a client that
/// cannot be sure first stops the service with CorpDirUninit and starts it again.
///
/// Sources of C++11 and later may include this file.
#ifndef FTPCORPDIR_H
#define FTPCORPDIR_H

#include <stddef.h>

#include "corpdir_loginfo.h"

/// A download request. The service copies what it needs during the call; the record may then be
/// freed, and should be wiped, since it holds the password in plain text.
///
/// Texts are NUL-terminated byte strings; of a field without a terminator the first 255 bytes are
/// taken. Limits that are checked when the transfer starts: user name and password 127 bytes, a
/// local directory 127 bytes with its closing "/".
struct tag_CORPDIR_DOWNLOADINFO
{
    /// Trusted certificates, must not be empty: "system" for the system's certificate store, the
    /// path of a PEM file or directory of certification authorities, or "key=value" pairs separated
    /// by ";":
    ///
    ///     ca=PATH         the same path (or "system")
    ///     name=A,B        DNS names, of which each server's certificate must carry one,
    ///                     whatever pszFtpIPs lists
    ///     tls=implicit    implicit FTPS on any port (port 990 is implicit without it)
    char szFtpCtrlInfo[256];
    char szUserName[256];           ///< FTP login, must not be empty
    char szPassword[256];           ///< FTP password, must not be empty; kept only in sealed form
    char szVersionServerFile[256];  ///< version file on the server
    char szCorpDirServerFile[256];  ///< directory file on the server
    char szVersionLocalDir[256];    ///< existing local directory for the version file
    char szVersionLocalFileName[256];  ///< its name there, without "/"
    char szCorpDirLocalDir[256];       ///< existing local directory for the directory file
    char szCorpDirLocalFileName[256];  ///< its name there, without "/"
    void* pReserved1;                  ///< not read
    const char* pszFtpIPs;             ///< servers separated by ";" without blanks: IPv4 or IPv6
                                       ///< addresses or host names, which their certificates
                                       ///< must carry; must not be null
    unsigned int ulPort;               ///< 0: 21; 990: implicit FTPS
    unsigned int ulFtpMode;     ///< 0: FTPS (control and data encrypted); other values: plain FTP
    void* pReserved2;           ///< not read
    const char* pszLocalIP;     ///< local address to connect from; null: keep the earlier
                                ///< request's; "": leave it to the system
    unsigned int ulCertVerify;  ///< 1: the server's certificate is verified; other values: not
};

static_assert(sizeof(void*) != 8 ||
                  (sizeof(tag_CORPDIR_DOWNLOADINFO) == 2352 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, szFtpCtrlInfo) == 0 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, szUserName) == 256 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, szPassword) == 512 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, szVersionServerFile) == 768 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, szCorpDirServerFile) == 1024 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, szVersionLocalDir) == 1280 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, szVersionLocalFileName) == 1536 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, szCorpDirLocalDir) == 1792 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, szCorpDirLocalFileName) == 2048 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, pReserved1) == 2304 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, pszFtpIPs) == 2312 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, ulPort) == 2320 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, ulFtpMode) == 2324 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, pReserved2) == 2328 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, pszLocalIP) == 2336 &&
                   offsetof(tag_CORPDIR_DOWNLOADINFO, ulCertVerify) == 2344),
              "the request record's layout is part of the interface");

/// Result of a request, called on the service's notification thread, one call at a time.
///
///     (1, 0, null, null)  the directory file is complete under the name that the request gave
///     (1, 1, null, null)  a transfer failed; for the version file the next server of the list may
///                         be tried next, so that several failures can precede a success
///
/// Every failed transfer is reported. There is no call when a check finds the version unchanged,
/// nor when a transfer could not be started (the log says why, except when memory ran out).
///
/// A directory file that failed is not fetched again until the version changes or a new request is
/// made. The file that was there before is left untouched.
///
/// The callback may call CorpDirUninit, CorpDirInit after it, and the cipher operations. It must
/// not make a new request and must not throw. It should return soon, because a stop on another
/// thread waits for it; it must not wait for a thread that is stopping the service.
typedef void (*CORPDIR_DOWNLOAD_CB)(unsigned int ulKind, unsigned int ulResult, const char* pszText,
                                    void* pReserved);

/// The service. Not thread-safe: one call at a time, from any thread. Never delete it.
class IFtpCorpDir
{
public:
    /// Starts the service: opens the log, starts the FTP library and the worker thread.
    /// pstLogInfo: log settings, null for standard error at level 2; not kept.
    /// Returns 0 when the service runs, 1 when it could not be started, or the log's own code when
    /// the log could not be opened. After a failure call CorpDirUninit before the next attempt.
    /// Starting a running service opens the log again and drops queued checks.
    virtual unsigned int CorpDirInit(tag_CORPDIR_LOGINFO* pstLogInfo) = 0;

    /// Stops the service and wipes the request's data, the password included. Blocks until the
    /// worker thread has ended and a callback in progress has returned (unless called from that
    /// callback). A transfer under way is cancelled without a callback. Harmless when nothing was
    /// started.
    virtual void CorpDirUninit() = 0;

    /// Takes a request and starts its first version check; a check follows every ten minutes.
    /// Blocks only for the resolution of the first server's name, if it is one.
    /// Returns 0 when the first check was started, else a non-zero code; the log says why, except
    /// when memory ran out. A request whose first check could not be started has no timer. See the
    /// top of this file for a second request.
    virtual unsigned int CorpDirDownloadNetaddr(tag_CORPDIR_DOWNLOADINFO* pstDownloadInfo,
                                                CORPDIR_DOWNLOAD_CB pfnDownloadCb) = 0;

    /// @name TLS cipher suites
    /// The suites that FTPS offers, in order of preference; one list for the process. An identifier
    /// is 0x03000000 plus the suite's two-byte IANA number (the form of OpenSSL's ids). When
    /// nothing is set, three suites are offered: 0x03000035, 0x0300003C, 0x0300003D. A stop
    /// releases the list. Change it while no transfer is being started.
    /// @{

    /// Replaces the list by a copy of piCipherList (ulCipherNum entries, duplicates kept).
    /// Returns 0; 1 for a null, empty or too large list, which changes nothing; else the copy's
    /// code.
    virtual unsigned int CorpDirSetFtpCipherListToDirImpl(const int* piCipherList,
                                                          unsigned int ulCipherNum) = 0;

    /// Appends one suite, to the default list when none is set. A suite already in the list is left
    /// where it is. Returns 0, or 1 when memory ran out.
    virtual unsigned int CorpDirAddFtpCipherListToDirImplByOne(int iCipher) = 0;

    /// Appends ulCipherNum suites, one by one; stops at the first failure and returns its code.
    /// Returns 0 for an empty list, and 1 for a null list with a count or one too large.
    virtual unsigned int CorpDirAddFtpCipherListToDirImpl(const int* piCipherList,
                                                          unsigned int ulCipherNum) = 0;
    /// @}

protected:
    ~IFtpCorpDir() = default;  ///< no client deletes the service
};

/// Returns the one service object of the process: never null, always the same; never delete it.
/// Any thread, at any time.
extern "C" __attribute__((visibility("default"))) IFtpCorpDir* GetCorpDirInstance();

#endif
