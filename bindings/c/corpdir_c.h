/** @file
 * Corporate-directory download service: the interface for C, and for every language that calls C.
 *
 * The client keeps one directory file current. It fetches a small version file from an FTP or FTPS
 * server, compares its first line with the version accepted last, and fetches the directory file
 * when that line changed. It repeats the check every ten minutes, asks the next server of the list
 * when one fails, and reports to the application through events.
 *
 *     corpdir_client* client;
 *     corpdir_open(NULL, &client);          the log opens, the service runs
 *     corpdir_start(client, &request);      first check now, then every ten minutes
 *     corpdir_close(client);                stop
 *
 * Events. A request with on_event gets its events in this function. Without it they wait until the
 * application takes them with corpdir_next_event, in an event loop when corpdir_event_fd is
 * readable.
 *
 * Threads. Every function may be called on any thread, also on several at once, and within the
 * callback. The callback runs on the client's own thread, one call at a time, in the order of the
 * events. A transfer under way goes on meanwhile; the next event, and putting a complete file into
 * place, wait for the callback's return. That thread blocks all signals except those of faults.
 *
 * Waiting. corpdir_close, corpdir_start and corpdir_stop wait for a callback in progress unless
 * they are called within a callback. So do not call them while holding a lock that the callback
 * takes. They do not wait for the network.
 *
 * The end of a process. A process may end without corpdir_close. The first corpdir_open registers a
 * handler with atexit: from its run on no callback begins, one in progress is waited for at most
 * 1 s, and calls return at once. In the child of a fork nothing here may be called;
 * corpdir_close, for destructors, returns at once there.
 *
 * Files. The directory file and the version file are replaced whole, one right after the other, and
 * only when the directory file is complete. Beside the directory file there is its state,
 * .NAME.corpdir.json (corpdir_status). Files that begin with .corpdir- or .travex_ftp- are the
 * client's own; those that a process left behind when it was killed are removed by the next one.
 *
 * Texts are NUL-terminated byte strings, file names in the encoding of the system and the server.
 * Records begin with their size, so that they can grow at their end. Zero a record first: every
 * zero member selects the default named beside it.
 *
 * Sources of C99, C++11 and later may include this file. C++17 has corpdir.hpp on top of it. */
#ifndef CORPDIR_C_H
#define CORPDIR_C_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define CORPDIR_API extern "C" __attribute__((visibility("default")))
#else
#define CORPDIR_API __attribute__((visibility("default")))
#endif

/** Results of calls, and codes of failures in events. */
typedef enum corpdir_code
{
    CORPDIR_OK = 0, /**< success; of an event: nothing failed */

    /* Calls. */
    CORPDIR_ERR_ARGUMENT = 1,    /**< a null pointer, or a record of a size that is unknown */
    CORPDIR_ERR_CLIENT = 2,      /**< the client is not open, or another thread is closing it */
    CORPDIR_ERR_BUSY = 3,        /**< the process has an open client already */
    CORPDIR_ERR_MEMORY = 4,      /**< memory, threads or descriptors ran out */
    CORPDIR_ERR_LOG = 5,         /**< the log's directory cannot be used */
    CORPDIR_ERR_SERVICE = 6,     /**< the service could not be started */
    CORPDIR_ERR_NOT_STARTED = 7, /**< no request is under way */
    CORPDIR_ERR_NO_EVENT = 8,    /**< no event waits */
    CORPDIR_ERR_NO_STATE = 9,    /**< no check of this directory file has ended yet */

    /* Failed transfers. */
    CORPDIR_ERR_CONNECT = 16,     /**< no connection: refused, unreachable, no answer */
    CORPDIR_ERR_TLS = 17,         /**< TLS refused, or its handshake failed */
    CORPDIR_ERR_CERTIFICATE = 18, /**< the server's certificate was not accepted */
    CORPDIR_ERR_LOGIN = 19,       /**< user or password not accepted */
    CORPDIR_ERR_FILE = 20,        /**< the server refused the file */
    CORPDIR_ERR_REPLY = 21,       /**< an unexpected reply, or one that is too long */
    CORPDIR_ERR_TIMEOUT = 22,     /**< a time limit was exceeded */
    CORPDIR_ERR_PARTIAL = 23,     /**< the file ended early, or its size is not the one announced */
    CORPDIR_ERR_TOO_LARGE = 24,   /**< the file is larger than the limit */
    CORPDIR_ERR_LOCAL_FILE = 25,  /**< a local file or directory cannot be used */
    CORPDIR_ERR_TRANSFER = 26,    /**< any other failure of the transfer */
    CORPDIR_ERR_NAME = 27,        /**< a server's name has no address */
    CORPDIR_ERR_VERSION = 28,     /**< the version file is not valid */

    /* Transfers that were refused before they began, and corpdir_start. */
    CORPDIR_ERR_REFUSED = 32,     /**< a parameter that cannot be used */
    CORPDIR_ERR_CIPHER = 33,      /**< a cipher suite that is unknown or not allowed */
    CORPDIR_ERR_AUTHORITIES = 34, /**< an entry, a file or a certificate of trust cannot be used */
    CORPDIR_ERR_SYSTEM = 35,      /**< memory or another resource of the system ran out */

    /* Record members that cannot be used; the rule is beside the member. */
    CORPDIR_ERR_SERVERS = 48,        /**< servers cannot be used */
    CORPDIR_ERR_USER = 49,           /**< user cannot be used */
    CORPDIR_ERR_PASSWORD = 50,       /**< password cannot be used */
    CORPDIR_ERR_VERSION_FILE = 51,   /**< version_file cannot be used */
    CORPDIR_ERR_DIRECTORY_FILE = 52, /**< directory_file cannot be used */
    CORPDIR_ERR_VERSION_DIR = 53,    /**< version_dir cannot be used */
    CORPDIR_ERR_VERSION_NAME = 54,   /**< version_name cannot be used */
    CORPDIR_ERR_DIRECTORY_DIR = 55,  /**< directory_dir cannot be used */
    CORPDIR_ERR_DIRECTORY_NAME = 56, /**< directory_name cannot be used */
    CORPDIR_ERR_LOCAL_ADDRESS = 57,  /**< local_address cannot be used */
    CORPDIR_ERR_TRUST = 58,          /**< trust cannot be used */
    CORPDIR_ERR_PORT = 59,           /**< port cannot be used */
    CORPDIR_ERR_MODE = 60,           /**< mode cannot be used */
    CORPDIR_ERR_VERIFICATION = 61,   /**< without_verification cannot be used */
    CORPDIR_ERR_LOG_DIR = 62,        /**< the log's directory cannot be used */
    CORPDIR_ERR_LOG_LEVEL = 63,      /**< the log's level cannot be used */
    CORPDIR_ERR_NAMES = 64,          /**< certificate_names cannot be used */
    CORPDIR_ERR_TIMES = 65           /**< connect_seconds or retry_seconds cannot be used */
} corpdir_code;

/** An open service. It is not an address, so a client that was closed is recognised. */
typedef struct corpdir_client corpdir_client;

/** Where the service writes its log, and how much of it. */
typedef struct corpdir_log_settings
{
    size_t size;             /**< sizeof(corpdir_log_settings) */
    const char* directory;   /**< for corpdir.log, at most 255 bytes; NULL or "": standard error */
    uint32_t level;          /**< highest level written: 0 errors, 1 fallbacks too, 2 everything */
    uint32_t max_file_bytes; /**< size at which a file is rotated; 0: 10 MiB */
    uint32_t max_files;      /**< rotated files kept beside the current one; 0: 5 */
    uint32_t reserved;       /**< 0 */
} corpdir_log_settings;

/** Protocol of a request's servers. */
typedef enum corpdir_mode
{
    CORPDIR_MODE_FTPS = 0, /**< control and data encrypted; implicit on port 990 */
    CORPDIR_MODE_FTP = 1   /**< nothing is encrypted, not even the password */
} corpdir_mode;

/** Kinds of event. CHECKING comes with each server that is asked. A check ends with DELIVERED,
 * UNCHANGED, NO_SERVER_LEFT or CHECK_FAILED. In brackets: the members that
 * are set, beside time. "Server" is server and name. */
typedef enum corpdir_event_kind
{
    CORPDIR_EVENT_PROGRESS = 1,    /**< bytes of a file have arrived, at most ten times a second for
                                    * each file (server, file, bytes, total) */
    CORPDIR_EVENT_TRANSFERRED = 2, /**< sent to programs built with version 1.0 only */
    CORPDIR_EVENT_FAILED = 3,      /**< a transfer failed; the file that was there before is
                                    * untouched. The next server may be asked next (server, file,
                                    * code, step, reply, reason, bytes, total) */
    CORPDIR_EVENT_REFUSED = 4,     /**< sent to programs built with version 1.0 only */
    CORPDIR_EVENT_DELIVERED = 5,   /**< a new directory file is complete under its local name, and
                                    * the version file beside it (server, file, version, path,
                                    * bytes) */
    CORPDIR_EVENT_LOST = 6,        /**< events before this one are missing: memory ran out, or more
                                    * than 1,000 waited for corpdir_next_event */
    CORPDIR_EVENT_CHECKING = 7,    /**< a server is asked for the version file (server, file) */
    CORPDIR_EVENT_NEXT_SERVER = 8, /**< the server before failed; CHECKING follows. A single server
                                    * is asked twice, without this event (server) */
    CORPDIR_EVENT_NEW_VERSION = 9, /**< the version file was read, and the local directory file has
                                    * another version: the directory file follows (server, file,
                                    * version) */
    CORPDIR_EVENT_UNCHANGED = 10,  /**< the local directory file has the server's version (server,
                                    * version, path, bytes) */
    CORPDIR_EVENT_INVALID_VERSION = 11, /**< the version file was read and is not valid; the next
                                         * server may be asked next (server, file, version: its
                                         * beginning, code, reason) */
    CORPDIR_EVENT_NAME_FAILED = 12,     /**< a name in servers has no address; the others are asked
                                         * (name, code, reason) */
    CORPDIR_EVENT_NO_SERVER_LEFT = 13,  /**< the check failed: all servers did (failures, and of the
                                         * last failure: server, code, reason) */
    CORPDIR_EVENT_CHECK_FAILED = 14,    /**< the check failed for another reason, such as a local
                                         * file that cannot be written (the same) */
    CORPDIR_EVENT_RECOVERED = 15,   /**< the check succeeded after some that failed (failures) */
    CORPDIR_EVENT_WAITING = 16,     /**< until the next check after a failure (seconds) */
    CORPDIR_EVENT_WARNING = 17,     /**< something to look at; the check goes on (reason) */
    CORPDIR_EVENT_START_FAILED = 18 /**< the service could not be started again; CHECK_FAILED
                                     * follows (code, reason) */
} corpdir_event_kind;

/** Steps of a transfer, in their order; corpdir_event.step of a failure. */
typedef enum corpdir_step
{
    CORPDIR_STEP_NONE = 0,       /**< before the first step, or the system ran out of a resource */
    CORPDIR_STEP_LOCAL_FILE = 1, /**< the local file: opened, written, renamed */
    CORPDIR_STEP_CONNECT = 2,    /**< the control connection */
    CORPDIR_STEP_GREETING = 3,   /**< the server's first reply */
    CORPDIR_STEP_AUTH = 4,       /**< AUTH TLS (RFC 4217) */
    CORPDIR_STEP_TLS = 5,        /**< the control channel's handshake and certificate */
    CORPDIR_STEP_LOGIN = 6,      /**< USER and PASS */
    CORPDIR_STEP_PROTECT = 7,    /**< PBSZ and PROT */
    CORPDIR_STEP_TYPE = 8,       /**< TYPE I */
    CORPDIR_STEP_PASSIVE = 9,    /**< EPSV (RFC 2428) or PASV */
    CORPDIR_STEP_DATA_CONNECT = 10, /**< the data connection */
    CORPDIR_STEP_SIZE = 11,         /**< SIZE (RFC 3659) */
    CORPDIR_STEP_RETRIEVE = 12,     /**< RETR, until the server begins to send */
    CORPDIR_STEP_DATA_TLS = 13,     /**< the data channel's handshake and certificate */
    CORPDIR_STEP_RECEIVE = 14,      /**< the file's bytes */
    CORPDIR_STEP_CONFIRM = 15       /**< the server's last reply for the file, usually 226 */
} corpdir_step;

/** The value of corpdir_event.total until the server announces a size. */
#define CORPDIR_SIZE_UNKNOWN UINT64_MAX

/** An event. The texts belong to the library. No text is NULL; one that is not set is "". */
typedef struct corpdir_event
{
    size_t size;        /**< of this record in the library */
    uint32_t kind;      /**< corpdir_event_kind; later versions may add some */
    uint32_t code;      /**< corpdir_code of a failure, else CORPDIR_OK */
    const char* server; /**< "192.0.2.1:21" or "[2001:db8::1]:21"; of NAME_FAILED the name */
    const char* file;   /**< on the server, as the request named it */
    const char* reason; /**< of a failure or warning, in words, without the server */
    uint64_t bytes;   /**< received so far; of DELIVERED and UNCHANGED the directory file's size */
    uint64_t total;   /**< size the server announced; until then CORPDIR_SIZE_UNKNOWN */
    const char* name; /**< the host name by which the server is listed; "" for an address */
    const char* version; /**< bytes as in the version file's first line */
    const char* path;    /**< of the local directory file */
    int64_t time;        /**< of the event, seconds since 1970, UTC */
    uint32_t step;       /**< corpdir_step of a failure */
    uint32_t reply;      /**< number of the server's reply that caused the failure; 0: none did */
    uint32_t failures;   /**< checks that failed in a row */
    uint32_t seconds;    /**< until the next check, at most */
} corpdir_event;

/** Called for each event on the client's thread, one call at a time. user: user_data of the
 * request. event and its texts are valid for the call. It may call every function of this header;
 * it must not throw or end its thread. */
typedef void (*corpdir_event_fn)(void* user, const corpdir_event* event);

/** A download request. Control bytes are refused in every text. */
typedef struct corpdir_request
{
    size_t size;              /**< sizeof(corpdir_request) */
    const char* servers;      /**< separated by ";": IPv4 or IPv6 addresses, IPv6 also in brackets,
                               * or host names. The certificate of a server must carry the name or
                               * address by which it is listed. Required */
    const char* user;         /**< FTP login, 1 to 127 bytes. Required */
    const char* password;     /**< 1 to 127 bytes. Required */
    const char* version_file; /**< on the server, 1 to 255 bytes, not ending in "/". Required */
    const char* directory_file; /**< likewise, and another file than version_file. Required */
    const char* directory_dir;  /**< existing local directory for the directory file, at most 127
                                 * bytes with a closing "/", which may be left out. Required */
    const char* directory_name; /**< its name there, at most 241 bytes, without "/"; NULL: the
                                 * last part of directory_file */
    const char* version_dir;    /**< likewise for the version file; NULL: directory_dir */
    const char* version_name;   /**< at most 255 bytes; NULL: the last part of version_file */
    const char* local_address;  /**< IPv4 or IPv6 address to connect from; NULL or "": the system's
                                 * choice */
    const char* trust; /**< certificates to accept, at most 255 bytes; NULL: "system", the system's
                        * certificate store. Else the path of a PEM file or directory of
                        * certification authorities, or "key=value" pairs separated by ";":
                        * ca= (a path or "system"), name= (DNS names separated by ",": each
                        * certificate must carry one of them, whatever is listed),
                        * tls=implicit */
    uint32_t port;     /**< 0: 21; at most 65535 */
    uint32_t mode;     /**< corpdir_mode */
    uint32_t without_verification; /**< 0: the server's certificate is checked; 1: it is not, and
                                    * any host that answers gets the password */
    uint32_t reserved;             /**< 0 */
    corpdir_event_fn on_event;     /**< NULL: the events wait for corpdir_next_event */
    void* user_data;               /**< passed to on_event; remains the caller's */
    const char* certificate_names; /**< DNS names separated by ";": each certificate must carry one
                                    * of them, whatever is listed; NULL or "": as listed */
    uint64_t max_file_bytes;       /**< largest file that is accepted; 0: 16 GiB */
    uint32_t connect_seconds;      /**< for each connection, at most 3600; 0: 10 */
    uint32_t retry_seconds; /**< until the next check when one failed before a version was read,
                             * for a version that is not valid, a directory file or a local file;
                             * at most 86400; 0: 60. After a refused login 600 at least. When later
                             * all servers fail, the check of every ten minutes is the next one */
} corpdir_request;

/** What is known of a local directory file. */
typedef struct corpdir_state
{
    size_t size;       /**< sizeof(corpdir_state), set by the caller */
    uint64_t bytes;    /**< size of the directory file that was fetched */
    int64_t fetched;   /**< when it was fetched, seconds since 1970, UTC; 0: never */
    int64_t confirmed; /**< end of the last check that fetched it or found it unchanged; 0: none */
    int64_t checked;   /**< end of the last check; 0: none */
    uint32_t failed;   /**< 1: the last check failed, else 0 */
    uint32_t failures; /**< checks that failed in a row */
    uint32_t in_place; /**< 1: the local file exists and has the size that was fetched, else 0 */
    uint32_t reserved; /**< 0 */
    char version[64];  /**< of the directory file; "": none was ever fetched */
    char sha256[72];   /**< of the directory file, 64 lower-case hexadecimal digits, or "" */
    char server[320];  /**< that gave it: "192.0.2.1", or "192.0.2.1 (host name)" */
    char reason[512];  /**< why the last check failed, or why there is no state; may be cut */
} corpdir_state;

/** Opens a client: the log, the service's threads, the client's thread. log: NULL for standard
 * error at level 2; copied. *client is set on success, else to NULL; close it with corpdir_close.
 * One client in a process at a time. Blocks for the opening of the log, 5 s at most.
 * CORPDIR_ERR_ARGUMENT, _BUSY, _MEMORY, _LOG, _SERVICE, _LOG_DIR, _LOG_LEVEL. */
CORPDIR_API corpdir_code corpdir_open(const corpdir_log_settings* log, corpdir_client** client);

/** Stops the service, wipes the request's data, the password included, and closes the client. A
 * transfer under way is cancelled, the file that was there before is untouched, and events that
 * were not delivered are dropped.
 *
 * After it returns no callback of the client runs, and user_data may be freed. Called within the
 * callback it does not wait for that callback, which is the last one: the client is closed at once,
 * and the callback may open a new one. A close of the same client on another thread then waits for
 * the callback's end.
 *
 * NULL and a client that is closed already are harmless. Any thread. Blocks until a callback in
 * progress has returned, the log is written (5 s at most) and the service's threads have ended. */
CORPDIR_API void corpdir_close(corpdir_client* client);

/** Takes a request and starts its first check; a check follows every ten minutes. The first check
 * transfers the directory file in any case; when the local one is the same, UNCHANGED follows. The
 * record and its texts are copied during the call, and remain the caller's; wipe the password. It
 * is kept in sealed form only.
 *
 * An earlier request ends: its transfer is cancelled and its events that were not delivered are
 * dropped. Once the new request is accepted, the earlier callback no longer runs and its user_data
 * may be freed, unless this is called within that callback. A request that cannot be used changes
 * nothing: the earlier one goes on. Only after CORPDIR_ERR_LOG, _SERVICE and _MEMORY it may have
 * ended too. corpdir_start_reason gives the reason in words.
 *
 * Names of servers are looked up afterwards, in parallel, 10 s at most. One that has no address is
 * left out of the check, with an event. Events may be delivered before the call returns.
 *
 * Any thread. Blocks for a callback in progress, for the end of the earlier request, and up to 30 s
 * while other processes put the same files into place.
 * CORPDIR_ERR_ARGUMENT, _CLIENT, _MEMORY, _LOG, _SERVICE, _LOCAL_FILE (a local directory cannot be
 * written), _REFUSED, _CIPHER, _AUTHORITIES, _SYSTEM, and from _SERVERS to _TIMES. */
CORPDIR_API corpdir_code corpdir_start(corpdir_client* client, const corpdir_request* request);

/** Copies a sentence about the client's last corpdir_start into buffer, cut to fit and terminated;
 * "" after a success. client NULL: about the last corpdir_open, when its log or service failed.
 * Returns the sentence's length, 0 also for a client that is not open. buffer: may be NULL when
 * capacity is 0. Any thread. Does not block. */
CORPDIR_API size_t corpdir_start_reason(corpdir_client* client, char* buffer, size_t capacity);

/** Ends the request under way: its transfer is cancelled, its events that were not delivered are
 * dropped, and no check follows. The client stays open. Any thread. Blocks as corpdir_start does.
 * CORPDIR_ERR_CLIENT, _MEMORY, _NOT_STARTED. */
CORPDIR_API corpdir_code corpdir_stop(corpdir_client* client);

/** Checks now, also after a refused login, which is sent again: some servers lock an account after
 * a few. A check under way goes on, and another one follows it, unless that check still looks up
 * names. Any thread. Does not block. CORPDIR_ERR_CLIENT, _NOT_STARTED. */
CORPDIR_API corpdir_code corpdir_check_now(corpdir_client* client);

/** Returns a descriptor that can be read while an event waits for corpdir_next_event: for poll,
 * epoll and the event loops on them. Do not read, write or close it. It is valid until the client
 * is closed: remove it from the loop before. -1 for a client that is not open. Any thread. Does not
 * block. */
CORPDIR_API int corpdir_event_fd(corpdir_client* client);

/** Takes the next waiting event of a request without on_event. Set event->size to
 * sizeof(corpdir_event) first. The texts are valid until the next call, or until the client is
 * closed. After 1,000 events the oldest are dropped, and LOST is reported.
 *
 * One thread at a time. Does not block. CORPDIR_ERR_ARGUMENT, _CLIENT, _NO_EVENT, _MEMORY. */
CORPDIR_API corpdir_code corpdir_next_event(corpdir_client* client, corpdir_event* event);

/** Reads what is known of a local directory file, from the state beside it. Needs no client, and
 * may be called in another process than the one that keeps it current. path: of the directory file.
 * Set state->size first. Any thread. Blocks for reading a small file.
 * CORPDIR_ERR_ARGUMENT, _MEMORY, _NO_STATE, _LOCAL_FILE (state->reason says why). */
CORPDIR_API corpdir_code corpdir_status(const char* path, corpdir_state* state);

/** @name TLS cipher suites
 * The suites that FTPS offers, in order of preference, as two-byte IANA numbers (0x1302 is
 * TLS_AES_256_GCM_SHA384). They apply to requests made afterwards, until the client is closed.
 * When none are set, suites of TLS 1.3 and 1.2 are offered that reach servers of today and old
 * ones: the set "compatible" of the program. corpdir_start refuses an unknown suite.
 *
 * Any thread. Does not block. CORPDIR_ERR_ARGUMENT, _CLIENT, _MEMORY.
 * @{ */

/** Replaces the list by a copy of count suites, at most 65536; 0: the default suites. */
CORPDIR_API corpdir_code corpdir_set_ciphers(corpdir_client* client, const uint16_t* suites,
                                             size_t count);

/** Appends one suite, to the default suites when none are set. A suite that is in the list already
 * is left where it is. */
CORPDIR_API corpdir_code corpdir_add_cipher(corpdir_client* client, uint16_t suite);
/** @} */

/** Returns the meaning of a code in words, a constant text; never NULL. Any thread. */
CORPDIR_API const char* corpdir_error_text(uint32_t code);

/** Returns the name of a kind of event, such as "new_version" for CORPDIR_EVENT_NEW_VERSION, a
 * constant text; "unknown" for an unknown kind. Any thread. */
CORPDIR_API const char* corpdir_event_name(uint32_t kind);

/** Returns the library's version, such as "1.0.0", a constant text. Any thread. */
CORPDIR_API const char* corpdir_version(void);

#endif
