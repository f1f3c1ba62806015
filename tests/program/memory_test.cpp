// The event queue when memory runs out in a callback: nothing is thrown, and the waiting thread
// gets an event.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <new>

#include "commands/events.h"

namespace
{

// Allocations of this thread until one fails; below 0: none fails.
thread_local int t_countdown = -1;

bool FailsNow()
{
    return t_countdown >= 0 && t_countdown-- == 0;
}

}  // namespace

// Not inlined: gcc would see free() on memory of operator new, and warn.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* const block = FailsNow() ? nullptr : malloc(size);
    if (block == nullptr)
    {
        throw std::bad_alloc();
    }
    return block;
}

[[gnu::noinline]] void operator delete(void* block) noexcept
{
    free(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept
{
    free(block);
}

namespace corpdir_tool
{
namespace
{

TEST(ToolMemory, AnObservationThatDoesNotFitIsReported)
{
    const char reason[] = "a reason that is too long for a string's own storage";
    tagTRAVEX_FTP_S_OBSERVATION seen = {};
    seen.ulKind = TRAVEX_FTP_OBSERVED_FAILED;
    seen.pcServer = "[2001:db8:1:2:3:4:5:6]:21";
    seen.pcServerFile = "a/long/path/on/the/server";
    seen.ulRet = TRAVEX_FTP_ERR_CONNECT;
    seen.pcReason = reason;
    int failures = 0;
    for (bool complete = false; !complete; ++failures)
    {
        EventQueue events;
        t_countdown = failures;
        events.PushObservation(seen);
        complete = t_countdown >= 0;
        t_countdown = -1;
        const Event event = events.WaitUntil({});
        EXPECT_EQ(event.kind, complete ? Event::Kind::kTransfer : Event::Kind::kOutOfMemory);
        EXPECT_EQ(event.transfer.reason, complete ? reason : "");
    }
    EXPECT_GT(failures, 3) << "each text and the queue's place can fail";
}

}  // namespace
}  // namespace corpdir_tool
