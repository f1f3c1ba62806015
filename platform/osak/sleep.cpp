#include "sleep.h"

#include "base/changes.h"
#include "process.h"
#include "thread.h"

#include <unistd.h>

#include <atomic>

namespace osak
{
namespace
{
// Milliseconds.
std::atomic<unsigned int> g_longest{1000};

// The count of changes at the end of the calling thread's last sleep; 0: it has not slept yet.
thread_local std::uint64_t t_seen = 0;

}  // namespace

void SetLongestSleep(std::chrono::milliseconds longest)
{
    g_longest = static_cast<unsigned int>(longest.count());
}

}  // namespace osak

int OSAK_PollSleep(unsigned int microseconds)
{
    if (osak::IsForkedChild())
    {
        return usleep(microseconds);
    }
    osak::HoldIfExiting();
    osak::t_seen = base::Changes::Get().Sleep(osak::t_seen, std::chrono::microseconds(microseconds),
                                              std::chrono::milliseconds(osak::g_longest));
    osak::HoldIfExiting();
    return 0;
}
