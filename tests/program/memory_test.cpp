// The event queue when memory runs out in a callback: nothing is thrown, and the waiting thread
// gets an event.
#include <gtest/gtest.h>

#include "commands/events.h"
#include "failing_new.h"

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
        support::t_allocationsLeft = failures;
        events.PushObservation(seen);
        complete = support::t_allocationsLeft >= 0;
        support::t_allocationsLeft = -1;
        const Event event = events.WaitUntil({});
        EXPECT_EQ(event.kind, complete ? Event::Kind::kTransfer : Event::Kind::kOutOfMemory);
        EXPECT_EQ(event.transfer.reason, complete ? reason : "");
    }
    EXPECT_GT(failures, 3) << "each text and the queue's place can fail";
}

}  // namespace
}  // namespace corpdir_tool
