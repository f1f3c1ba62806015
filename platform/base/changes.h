// Counts changes for polling threads, and lets them sleep until the next one.
#ifndef CORPDIR_BASE_CHANGES_H
#define CORPDIR_BASE_CHANGES_H

#include <cstdint>

#include "base/mutex.h"
#include "base/never_destroyed.h"

namespace base
{
// The process's counter. The layers raise it after each callback into their client, and when a
// thread is to end: whatever the callback queued for another thread can be taken by then.
// Thread-safe; not for the child of a fork.
class Changes
{
public:
    static Changes& Get()
    {
        static NeverDestroyed<Changes> s_changes;
        return s_changes.Get();
    }

    // Counts a change and wakes all sleepers.
    void Raise() CORPDIR_EXCLUDES(m_mutex)
    {
        const MutexLock lock(m_mutex);
        ++m_count;
        m_last = Clock::now();
        m_raised.NotifyAll();
    }

    // The sleep of a thread that looked at its work after its last sleep. `seen`: the result of
    // that sleep, 0 for a thread's first. Returns at once when there was a change since. Lasts
    // `asked` for the first sleep and for one soon after a change, else `longest`; a change ends it
    // early. Returns the count of changes, never 0.
    uint64_t Sleep(uint64_t seen, Clock::duration asked, Clock::duration longest)
        CORPDIR_EXCLUDES(m_mutex)
    {
        constexpr std::chrono::milliseconds kSoon{1};
        const MutexLock lock(m_mutex);
        const Clock::time_point now = Clock::now();
        const bool brief = seen == 0 || now - m_last < kSoon;
        const Clock::time_point end = now + (brief ? asked : longest);
        const uint64_t known = seen == 0 ? m_count : seen;
        while (m_count == known && m_raised.WaitUntil(m_mutex, end))
        {
        }
        return m_count;
    }

private:
    Mutex m_mutex;
    CondVar m_raised;
    uint64_t m_count CORPDIR_GUARDED_BY(m_mutex) = 1;
    Clock::time_point m_last CORPDIR_GUARDED_BY(m_mutex);
};

}  // namespace base

#endif
