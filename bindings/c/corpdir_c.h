/** @file
 * Corporate-directory download service: the interface for C, and for every language that calls C.
 *
 * The service fetches a small version file from an FTP or FTPS server, compares its first line with
 * the version it accepted last, and fetches the directory file when that line changed. It repeats
 * the check every ten minutes, tries the next server of the list when one fails, and reports to the
 * client through events.
 *
 *     corpdir_client* client;
 *     corpdir_open(NULL, &client);          the log opens, the service runs
 *     corpdir_start(client, &request);      first check now, then every ten minutes
 *     corpdir_close(client);                stop
 *
 * Threads. Every function may be called on any thread, also on several at once, and within the
 * callback. Events are delivered on one thread of the library's own, one at a time, in the order in
 * which they happened; a slow callback holds up later events and nothing else. That thread blocks
 * all signals.
 *
 * Waiting. corpdir_close, and corpdir_start while an earlier request is under way, wait for a
 * callback in progress unless they are called within a callback. So do not call them while holding
 * a lock that the callback takes.
 *
 * The end of a process. A process may end without corpdir_close: from exit() on no callback begins,
 * and one in progress is waited for at most 1 s. In the child of a fork nothing here may be called.
 *
 * Texts are NUL-terminated byte strings, file names in the encoding of the system and the server.
 * Records begin with their size, so that they can grow at their end. Zero a record first: every
 * zero member selects the default named beside it.
 *
 * Sources of C99, C++11 and later may include this file. */
#ifndef CORPDIR_C_H
#define CORPDIR_C_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define CORPDIR_API extern "C" __attribute__((visibility("default")))
#else
#define CORPDIR_API __attribute__((visibility("default")))
#endif

/** Results of calls, and reasons of failed transfers in events. */
typedef enum corpdir_code
{
    CORPDIR_OK = 0, /**< success; of an event: nothing failed */

    /* Calls. */
    CORPDIR_ERR_ARGUMENT = 1,    /**< a null pointer, or a record of a size that is unknown */
    CORPDIR_ERR_CLIENT = 2,      /**< the client is not open, or another thread is closing it */
    CORPDIR_ERR_BUSY = 3,        /**< the process has an open client already */
    CORPDIR_ERR_MEMORY = 4,      /**< memory or threads ran out */
    CORPDIR_ERR_LOG = 5,         /**< the log's directory cannot be used */
    CORPDIR_ERR_SERVICE = 6,     /**< the service could not be started; the log says why */
    CORPDIR_ERR_NOT_STARTED = 7, /**< the first check could not be started: no server's name has
                                  * an address, for instance; the log says why */

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
    CORPDIR_ERR_LOCAL_FILE = 25,  /**< the local file cannot be written */
    CORPDIR_ERR_TRANSFER = 26,    /**< any other failure of the transfer */

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
    CORPDIR_ERR_LOG_LEVEL = 63       /**< the log's level cannot be used */
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

/** Kinds of event. */
typedef enum corpdir_event_kind
{
    CORPDIR_EVENT_PROGRESS = 1, /**< bytes of a file have arrived; at most ten a second per file */
    CORPDIR_EVENT_TRANSFERRED = 2, /**< a file is complete and in place; a check that finds the
                                    * version unchanged ends with this one, of the version file */
    CORPDIR_EVENT_FAILED = 3,      /**< a transfer failed: code and reason; the file that was there
                                    * before is untouched. For the version file the next server may
                                    * be tried next, so that several can precede a success */
    CORPDIR_EVENT_REFUSED = 4,     /**< a later transfer could not be started: code and reason */
    CORPDIR_EVENT_DELIVERED = 5,   /**< the directory file is complete under its local name; server,
                                    * file and bytes are those of its transfer */
    CORPDIR_EVENT_LOST = 6 /**< memory ran out: one or more events before this one are missing */
} corpdir_event_kind;

/** The value of corpdir_event.total until the server announces a size. */
#define CORPDIR_SIZE_UNKNOWN UINT64_MAX

/** An event. The record and its texts belong to the library and are valid for the call. No text is
 * NULL; an unknown one is "". */
typedef struct corpdir_event
{
    size_t size;        /**< of this record in the library */
    uint32_t kind;      /**< corpdir_event_kind; later versions may add some */
    uint32_t code;      /**< corpdir_code of a failure or refusal, else CORPDIR_OK */
    const char* server; /**< "192.0.2.1:21" or "[2001:db8::1]:21"; a name that has no address */
    const char* file;   /**< on the server, as the request named it */
    const char* reason; /**< of a failure or refusal, in words, without the server */
    uint64_t bytes;     /**< received so far */
    uint64_t total;     /**< size the server announced; until then CORPDIR_SIZE_UNKNOWN */
} corpdir_event;

/** Called for each event on the library's event thread, one call at a time. user: user_data of the
 * request. It may call every function of this header; it must not throw or end its thread. */
typedef void (*corpdir_event_fn)(void* user, const corpdir_event* event);

/** A download request. Control bytes are refused in every text. */
typedef struct corpdir_request
{
    size_t size;                /**< sizeof(corpdir_request) */
    const char* servers;        /**< separated by ";" without blanks: IPv4 or IPv6 addresses or host
                                 * names, each at most 255 bytes. The certificate of a server must
                                 * carry the name or address by which it is listed. Required */
    const char* user;           /**< FTP login, 1 to 127 bytes. Required */
    const char* password;       /**< 1 to 127 bytes. Required */
    const char* version_file;   /**< on the server, 1 to 255 bytes, not ending in "/". Required */
    const char* directory_file; /**< likewise, and another file than version_file. Required */
    const char* directory_dir;  /**< existing local directory for the directory file, at most 127
                                 * bytes with a closing "/", which may be left out. Required */
    const char* directory_name; /**< its name there, at most 255 bytes, without "/"; NULL: the
                                 * last part of directory_file */
    const char* version_dir;    /**< likewise for the version file; NULL: directory_dir */
    const char* version_name;   /**< NULL: the last part of version_file */
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
    corpdir_event_fn on_event;     /**< NULL: no events */
    void* user_data;               /**< passed to on_event; remains the caller's */
} corpdir_request;

/** Opens the service: the log, the service's threads, the event thread. log: NULL for standard
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
 * progress has returned, the log is written (5 s at most) and the service's threads have ended;
 * the resolution of a server's name can delay these. */
CORPDIR_API void corpdir_close(corpdir_client* client);

/** Takes a request and starts its first check; a check follows every ten minutes. The record and
 * its texts are copied during the call, and remain the caller's; wipe the password. The service
 * keeps it in sealed form only.
 *
 * If an earlier request is under way, the service is stopped and started again: the earlier
 * transfer is cancelled and its events are dropped. Once the new request is accepted, the earlier
 * callback no longer runs and its user_data may be freed, unless this is called within that
 * callback. A request that is refused for one of its members changes nothing.
 *
 * Events may be delivered before the call returns. After a failure nothing of the request is under
 * way, none of its events is delivered, and no earlier request continues, unless the code is that
 * of a member, CORPDIR_ERR_ARGUMENT or CORPDIR_ERR_CLIENT. corpdir_start_reason gives the reason.
 *
 * Names of servers are looked up within the call, in parallel, 10 s at most. One that has no
 * address is left out, with an event CORPDIR_EVENT_FAILED. The others are looked up again at each
 * later check.
 *
 * Any thread. Blocks for the names, and after an earlier request as corpdir_close does.
 * CORPDIR_ERR_ARGUMENT, _CLIENT, _MEMORY, _LOG, _SERVICE, _NOT_STARTED, _REFUSED, _CIPHER,
 * _AUTHORITIES, _SYSTEM, and from _SERVERS to _VERIFICATION. */
CORPDIR_API corpdir_code corpdir_start(corpdir_client* client, const corpdir_request* request);

/** Copies a sentence about the client's last corpdir_start into buffer, cut to fit and terminated;
 * "" after a success. Returns the sentence's length, 0 also for a client that is not open. buffer:
 * may be NULL when capacity is 0. Any thread. Waits for a call under way on another thread. */
CORPDIR_API size_t corpdir_start_reason(corpdir_client* client, char* buffer, size_t capacity);

/** @name TLS cipher suites
 * The suites that FTPS offers, in order of preference, as two-byte IANA numbers (0x1302 is
 * TLS_AES_256_GCM_SHA384). They apply to requests made afterwards, until the client is closed.
 * When none are set: 0x0035, 0x003C, 0x003D, which old servers support and which have no forward
 * secrecy. corpdir_start refuses an unknown suite.
 *
 * Any thread. Waits for a call under way on another thread. CORPDIR_ERR_ARGUMENT, _CLIENT,
 * _MEMORY.
 * @{ */

/** Replaces the list by a copy of count suites, at most 65536; 0: the three default suites. */
CORPDIR_API corpdir_code corpdir_set_ciphers(corpdir_client* client, const uint16_t* suites,
                                             size_t count);

/** Appends one suite, to the three default suites when none are set. A suite that is in the list
 * already is left where it is. */
CORPDIR_API corpdir_code corpdir_add_cipher(corpdir_client* client, uint16_t suite);
/** @} */

/** Returns the meaning of a code in words, a constant text; never NULL. Any thread. */
CORPDIR_API const char* corpdir_error_text(uint32_t code);

/** Returns the library's version, such as "1.0.0", a constant text. Any thread. */
CORPDIR_API const char* corpdir_version(void);

#endif
