// The end of the process and its forks: what each layer does then, in one order.
#ifndef CORPDIR_BASE_PROCESS_END_H
#define CORPDIR_BASE_PROCESS_END_H

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>

#include "base/mutex.h"

namespace base
{
// In the order in which they run at exit.
enum class EndStage
{
    kEvents,     // the C library's callbacks
    kTransfers,  // notifications and transfer threads
    kThreads,    // timers and threads of the OS layer, which may be inside OpenSSL
    kCrypto,     // uses of the crypto library; OpenSSL's own handler runs after this stage
    kLog,        // last: the others write records
};

enum class StageProgress
{
    kNone,
    kBegun,
    kOver,
};

// One stage. Constant-initialised and trivially destroyed: usable before and after static objects.
struct StageEntry
{
    using AtExit = void (*)(Clock::time_point deadline);
    using InChild = void (*)();

    std::atomic<AtExit> atExit{nullptr};
    std::atomic<InChild> inChild{nullptr};
    std::atomic<StageProgress> progress{StageProgress::kNone};
};

// Each layer registers its stage at its first use. A stage runs no later than an exit handler
// registered at that moment would: so a layer that starts OpenSSL first has its stage run before
// OpenSSL's own exit handler, and static objects made before the first use are destroyed later. It
// runs earlier when a later stage is due before it. Thread-safe; nothing here takes a lock.
class ProcessEnd
{
public:
    // The longest that one stage waits for other threads.
    static constexpr std::chrono::seconds kPatience{1};

    // The stage's work at exit, on the thread that ends the process.
    using AtExit = StageEntry::AtExit;
    // The stage's work in the child of a fork, on its only thread.
    using InChild = StageEntry::InChild;

    // Call it once for each stage. inChild may be null. False when memory ran out.
    template <EndStage kStage>
    static bool Register(AtExit atExit, InChild inChild)
    {
        StageEntry& entry = Of(kStage);
        entry.inChild = inChild;
        entry.atExit = atExit;
        return WatchForks() && std::atexit([] { RunUpTo(kStage); }) == 0;
    }

    // The stage's work at exit has begun, or is over.
    static bool HasBegun(EndStage stage)
    {
        return Of(stage).progress.load(std::memory_order_acquire) != StageProgress::kNone;
    }
    static bool IsOver(EndStage stage)
    {
        return Of(stage).progress.load(std::memory_order_acquire) == StageProgress::kOver;
    }

    // True on the thread that runs the stages, from the first of them on.
    static bool IsCaller()
    {
        return t_isEnding;
    }

    // Stops the calling thread for good, until the process is gone.
    [[noreturn]] static void HoldCaller()
    {
        for (;;)
        {
            (void)pause();  // returns after a signal handler of the client
        }
    }

private:
    static StageEntry& Of(EndStage stage)
    {
        return s_entries[static_cast<std::size_t>(stage)];
    }

    static bool WatchForks()
    {
        static const bool s_watching = pthread_atfork(nullptr, nullptr, OnFork) == 0;
        return s_watching;
    }

    static void RunUpTo(EndStage last)
    {
        t_isEnding = true;
        for (std::size_t i = 0; i <= static_cast<std::size_t>(last); ++i)
        {
            StageEntry& entry = s_entries[i];
            const AtExit atExit = entry.atExit;
            if (atExit != nullptr && entry.progress == StageProgress::kNone)
            {
                entry.progress = StageProgress::kBegun;
                atExit(Clock::now() + kPatience);
                entry.progress = StageProgress::kOver;
            }
        }
    }

    static void OnFork()
    {
        for (const StageEntry& entry : s_entries)
        {
            const InChild inChild = entry.inChild;
            if (inChild != nullptr)
            {
                inChild();
            }
        }
    }

    static inline std::array<StageEntry, 5> s_entries;
    static inline thread_local bool t_isEnding = false;
};

}  // namespace base

#endif
