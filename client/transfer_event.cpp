#include "transfer_event.h"

namespace client
{

namespace
{

EventKind KindOf(unsigned int observed)
{
    switch (observed)
    {
        case TRAVEX_FTP_OBSERVED_STEP:
            return EventKind::kStep;
        case TRAVEX_FTP_OBSERVED_ACCEPTED:
            return EventKind::kAccepted;
        case TRAVEX_FTP_OBSERVED_SUCCESS:
            return EventKind::kTransferred;
        case TRAVEX_FTP_OBSERVED_FAILED:
            return EventKind::kFailed;
        case TRAVEX_FTP_OBSERVED_REFUSED:
            return EventKind::kRefused;
        default:
            return EventKind::kProgress;
    }
}

}  // namespace

TransferEvent EventOf(const tagTRAVEX_FTP_S_OBSERVATION& seen)
{
    TransferEvent event;
    event.kind = KindOf(seen.ulKind);
    event.task = seen.ulTaskID;
    event.server = seen.pcServer;
    event.file = seen.pcServerFile;
    event.bytes = seen.ullBytes;
    event.total = seen.ullTotal;
    event.code = seen.ulRet;
    event.step = seen.ulStep;
    event.reply = seen.ulReply;
    event.detail = seen.ulDetail;
    event.reason = seen.pcReason;
    if (seen.pstTimings != nullptr)
    {
        event.timings = *seen.pstTimings;
    }
    return event;
}

bool IsSettingsRefusal(unsigned int code)
{
    return code == TRAVEX_FTP_ERR_PARAM || code == TRAVEX_FTP_ERR_CIPHER ||
           code == TRAVEX_FTP_ERR_TRUST;
}

std::string AddressOfEndpoint(const std::string& endpoint)
{
    if (!endpoint.empty() && endpoint.front() == '[')
    {
        return endpoint.substr(1, endpoint.find(']') - 1);
    }
    return endpoint.substr(0, endpoint.find(':'));
}

}  // namespace client
