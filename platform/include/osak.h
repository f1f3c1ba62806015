/// @file
/// Operating-system layer: tracked memory, recursive mutexes, threads, relative timers, strings and
/// addresses.
///
/// Everything here may be called on any thread, also within a timer's callback. Nothing throws; an
/// exception that leaves a thread's entry or a callback ends the process. Result codes are unsigned
/// 32-bit numbers, 0 is success. A stale or foreign handle gets a code, never a crash.
///
/// The layer's threads have names ("corpdir-worker", "corpdir-timer") and all asynchronous signals
/// blocked, SIGPIPE included.
///
/// When the process exits, no further timer callback begins, and the layer's threads are held at
/// their next OSAK_MutexLock, or while they wait in one. The exit handler, registered at the first
/// use, waits at most 1 s for the threads that are not held and for a callback in progress. Static
/// destructors may still destroy, release and free; starting anything gives OSAK_ERR_SYSTEM or
/// null.
///
/// In the child of a fork after the first use, memory, mutexes, threads and timers do not work:
/// calls give OSAK_ERR_SYSTEM or null, and a release does nothing.
#ifndef OSAK_H
#define OSAK_H

#include <stddef.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

/// Result codes.
enum tagOSAK_RESULT
{
    OSAK_OK = 0,            ///< success
    OSAK_ERR_PARAM = 1,     ///< a null or invalid argument
    OSAK_ERR_NO_MUTEX = 2,  ///< the address holds no live mutex
    OSAK_ERR_BUSY = 3,  ///< another thread holds the mutex and did not unlock it in time; while the
                        ///< process exits also: the thread or callback did not end in time
    OSAK_ERR_OWNER = 4,   ///< destroyed by its holder, or unlocked by another thread
    OSAK_ERR_HANDLE = 5,  ///< a freed, joined or unknown handle
    OSAK_ERR_SELF = 6,    ///< a thread cannot join itself
    OSAK_ERR_SYSTEM = 7   ///< memory ran out, the system refused, or the process exits
};

/// Storage that names one mutex. The caller allocates it; the mutex's state lives in the layer, so
/// that an address whose storage was released is recognised without being read.
struct OSAK_MUTEX
{
    alignas(8) unsigned char aucStorage[72];  ///< neither read nor written
};
static_assert(sizeof(OSAK_MUTEX) == 72 && alignof(OSAK_MUTEX) == 8, "fixed size");

typedef struct tagOSAK_THREAD* OSAK_THREAD;     ///< null: no thread
typedef struct tagOSAK_TIMER* OSAK_TIMER;       ///< null: no timer
typedef unsigned int (*OSAK_THREAD_PROC)();     ///< thread entry
typedef void (*OSAK_TIMER_PROC)(void* pParam);  ///< runs on the layer's one timer thread

extern "C"
{
    // Memory.

    /// A zeroed, tracked block of `size` bytes, aligned for any type; null when memory ran out,
    /// size is 0 or it exceeds PTRDIFF_MAX. The last 1,024 released blocks, up to 16 MiB together,
    /// are not handed out again, so that a stale pointer does not meet a new owner. `line` and
    /// `file` have no effect.
    void* OSAK_MemMallocD(size_t size, unsigned int line, const char* file);

    /// As OSAK_MemMallocD; `zero` is accepted and has no effect: every block is zeroed.
    void* OSAK_MemMallocS(size_t size, unsigned int zero, unsigned int line, const char* file);

    /// Clears and releases a block. Null does nothing; a pointer that is not a live block is
    /// reported in the log at level 0, with this place and that of an earlier release, and is not
    /// followed. `file` is kept, not copied.
    void OSAK_MemFreeD(void* block, unsigned int line, const char* file);

    /// Releases *block as OSAK_MemFreeD does and sets *block to null.
    void OSAK_MemFreeSetNullD(void** block, unsigned int line, const char* file);

    // Mutexes.

    /// Creates a recursive mutex that is named by this storage, which is never read or written.
    /// attr: null. OSAK_ERR_PARAM for another argument, or when the storage already names a live
    /// mutex, which is left unchanged.
    unsigned int OSAK_MutexInitRecursive(OSAK_MUTEX* mutex, void* attr);

    /// Destroys the mutex. OSAK_ERR_OWNER for its holder. Waits at most 1 s for another holder,
    /// with new lockers held back; then OSAK_ERR_BUSY, and the mutex is left unchanged. Threads
    /// that wait for it, and a later unlock, get OSAK_ERR_NO_MUTEX.
    unsigned int OSAK_MutexDestroy(OSAK_MUTEX* mutex);

    /// Locks, blocking; each lock of the holder needs an unlock of its own. All mutexes share one
    /// lock of the layer, which is held only during a look-up. While the process exits, a lock
    /// waits at most 1 s, then OSAK_ERR_BUSY.
    unsigned int OSAK_MutexLock(OSAK_MUTEX* mutex);

    /// Undoes one lock; after the last one a waiting thread gets the mutex. OSAK_ERR_OWNER for a
    /// thread that does not hold it.
    unsigned int OSAK_MutexUnLock(OSAK_MUTEX* mutex);

    // Threads.

    /// Starts a thread. *thread is set before the entry runs, and set to null on failure. attr and
    /// arg: null (the entry takes no argument), else OSAK_ERR_PARAM.
    unsigned int OSAK_PthreadCreate(OSAK_THREAD* thread, void* attr, OSAK_THREAD_PROC entry,
                                    void* arg);

    /// Waits for the thread's end; *result (unless `result` is null) is the entry's result as a
    /// pointer, 0 when pthread_exit ended it. OSAK_ERR_SELF for the calling thread itself, which is
    /// then detached: its handle ends. OSAK_ERR_HANDLE for a second join, also while the first one
    /// still waits. After the exit handler a join does not wait: OSAK_ERR_BUSY.
    unsigned int OSAK_PthreadJoin(OSAK_THREAD thread, void** result);

    // Relative timers.

    /// A timer that is not running. mode 0: repeats until freed; other values: fires once per
    /// start. Null on failure. Time is monotonic; a repetition is due one period after the last
    /// expiry was handled, so periods missed while the machine slept are not repeated.
    OSAK_TIMER OSAK_CreateRelTimerM(OSAK_TIMER_PROC callback, unsigned int mode, unsigned int line,
                                    const char* file);

    /// Starts the timer, or restarts a running one, with its full length in milliseconds. `param`
    /// is passed to the callback. Allowed within a callback. Length 0 fires at once; for a
    /// repeating timer it counts as 1 ms.
    unsigned int OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int ms, void* param);

    /// Frees the timer. Waits for a running callback, unless the caller is that callback; after it
    /// returns the callback neither runs nor starts. No lock of the layer is held while a callback
    /// runs. If two threads free a timer, the second one gets OSAK_ERR_HANDLE at once.
    unsigned int OSAK_FreeRelTimer(OSAK_TIMER timer);

    // Strings.

    /// Length of a NUL-terminated text; null counts as the empty text. A length beyond 32 bits
    /// counts as 0xFFFFFFFF.
    unsigned int OSAK_StrLen(const char* text);

    /// Byte order of two NUL-terminated texts, as strcmp: below 0, 0 or above 0; null counts as the
    /// empty text.
    int OSAK_StrCmp(const char* left, const char* right);

    // Addresses.

    /// As inet_pton (RFC 4291 texts for AF_INET6): 1 converted, 0 not an address, -1 unknown
    /// family. dest: 16 bytes. A null argument gives 0.
    int OSAK_Inet_Pton(int family, const char* text, void* dest);

    /// As inet_addr: numbers and dots in network byte order; 0xFFFFFFFF for invalid text and null.
    unsigned int OSAK_InetAddr(const char* text);

    /// As getaddrinfo; blocks as long as the system's resolver does. 0 always comes with at least
    /// one entry, to be released with OSAK_FreeAddrInfo; else *result is null. EAI_FAIL when
    /// `result` is null.
    int OSAK_GetAddrInfo(const char* node, const char* service, const struct addrinfo* hints,
                         struct addrinfo** result);

    /// Releases a result of OSAK_GetAddrInfo. Null does nothing.
    void OSAK_FreeAddrInfo(struct addrinfo* result);

}  // extern "C"

#endif
