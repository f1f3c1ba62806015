// Events of transfers, made from observations.
#include "transfer_event.h"

#include <gtest/gtest.h>

#include <utility>

namespace client
{
namespace
{

TEST(TransferEvent, HasTheKindOfItsObservation)
{
    const std::pair<tagTRAVEX_FTP_OBSERVED, EventKind> kinds[] = {
        {TRAVEX_FTP_OBSERVED_PROGRESS, EventKind::kProgress},
        {TRAVEX_FTP_OBSERVED_SUCCESS, EventKind::kTransferred},
        {TRAVEX_FTP_OBSERVED_FAILED, EventKind::kFailed},
        {TRAVEX_FTP_OBSERVED_REFUSED, EventKind::kRefused},
        {TRAVEX_FTP_OBSERVED_ACCEPTED, EventKind::kAccepted},
        {TRAVEX_FTP_OBSERVED_STEP, EventKind::kStep}};
    for (const auto& [observed, kind] : kinds)
    {
        tagTRAVEX_FTP_S_OBSERVATION seen = {};
        seen.ulKind = observed;
        seen.ulStep = TRAVEX_FTP_STEP_LOGIN;
        seen.pcServer = seen.pcServerFile = seen.pcReason = "";
        const TransferEvent event = EventOf(seen);
        EXPECT_EQ(event.kind, kind) << observed;
        EXPECT_EQ(event.step, TRAVEX_FTP_STEP_LOGIN);
    }
}

}  // namespace
}  // namespace client
