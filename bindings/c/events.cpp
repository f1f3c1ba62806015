#include "events.h"

#include <ctime>

#include "travex_ftp.h"

namespace corpdir_c
{

namespace
{

using Kind = client::Event::Kind;

static_assert(CORPDIR_ERR_CONNECT == static_cast<int>(TRAVEX_FTP_ERR_CONNECT) &&
                  CORPDIR_ERR_TLS == static_cast<int>(TRAVEX_FTP_ERR_TLS) &&
                  CORPDIR_ERR_CERTIFICATE == static_cast<int>(TRAVEX_FTP_ERR_CERT) &&
                  CORPDIR_ERR_LOGIN == static_cast<int>(TRAVEX_FTP_ERR_LOGIN) &&
                  CORPDIR_ERR_FILE == static_cast<int>(TRAVEX_FTP_ERR_FILE) &&
                  CORPDIR_ERR_REPLY == static_cast<int>(TRAVEX_FTP_ERR_REPLY) &&
                  CORPDIR_ERR_TIMEOUT == static_cast<int>(TRAVEX_FTP_ERR_TIMEOUT) &&
                  CORPDIR_ERR_PARTIAL == static_cast<int>(TRAVEX_FTP_ERR_PARTIAL) &&
                  CORPDIR_ERR_TOO_LARGE == static_cast<int>(TRAVEX_FTP_ERR_TOO_LARGE) &&
                  CORPDIR_ERR_LOCAL_FILE == static_cast<int>(TRAVEX_FTP_ERR_LOCAL_FILE) &&
                  CORPDIR_ERR_TRANSFER == static_cast<int>(TRAVEX_FTP_ERR_TRANSFER),
              "failures have the FTP layer's numbers");
static_assert(CORPDIR_STEP_NONE == static_cast<int>(TRAVEX_FTP_STEP_NONE) &&
                  CORPDIR_STEP_LOGIN == static_cast<int>(TRAVEX_FTP_STEP_LOGIN) &&
                  CORPDIR_STEP_RETRIEVE == static_cast<int>(TRAVEX_FTP_STEP_RETRIEVE) &&
                  CORPDIR_STEP_CONFIRM == static_cast<int>(TRAVEX_FTP_STEP_CONFIRM),
              "steps have the FTP layer's numbers");
static_assert(CORPDIR_SIZE_UNKNOWN == TRAVEX_FTP_SIZE_UNKNOWN, "one value for both");

EventData Common(const client::Event& event, corpdir_event_kind kind)
{
    EventData data;
    data.kind = kind;
    // A name that has no address was not asked.
    data.server = event.server.address.empty() ? event.server.name : event.transfer.server;
    data.file = event.transfer.file;
    data.name = event.server.name;
    data.version = event.version;
    data.path = event.path;
    data.bytes = event.transfer.bytes;
    data.total = event.transfer.total;
    data.time = std::time(nullptr);
    data.failures = event.failures;
    data.seconds = static_cast<unsigned int>(event.wait.count());
    return data;
}

EventData Failure(const client::Event& event, corpdir_event_kind kind, corpdir_code code)
{
    EventData data = Common(event, kind);
    data.code = code;
    data.reason = event.transfer.reason;
    data.step = event.transfer.step;
    data.reply = event.transfer.reply;
    return data;
}

// The end of a check that found the directory file current.
EventData End(const client::Event& event, corpdir_event_kind kind)
{
    EventData data = Common(event, kind);
    data.bytes = data.total = event.size;
    return data;
}

// The code of a failure, or of the one that ended a check.
corpdir_code CodeOfFailure(const client::Event& event)
{
    switch (event.kind == Kind::kPassFailed ? event.failure : event.kind)
    {
        case Kind::kNameFailed:
            return CORPDIR_ERR_NAME;
        case Kind::kInvalidVersion:
            return CORPDIR_ERR_VERSION;
        case Kind::kStartFailed:
            return event.transfer.code != 0 ? CORPDIR_ERR_LOG : CORPDIR_ERR_SERVICE;
        default:
            return CodeOf(event.transfer.code);
    }
}

std::vector<EventData> CurrentEvents(const client::Event& event)
{
    switch (event.kind)
    {
        case Kind::kChecking:
            if (event.next == client::Next::kOtherServer)
            {
                return {Common(event, CORPDIR_EVENT_NEXT_SERVER),
                        Common(event, CORPDIR_EVENT_CHECKING)};
            }
            return {Common(event, CORPDIR_EVENT_CHECKING)};
        case Kind::kProgress:
            if (event.transfer.kind != client::EventKind::kProgress)
            {
                return {};  // another step of the dialogue
            }
            return {Common(event, CORPDIR_EVENT_PROGRESS)};
        case Kind::kNewVersion:
            if (event.known)
            {
                return {};  // the service reads it for the first time since its start
            }
            return {Common(event, CORPDIR_EVENT_NEW_VERSION)};
        case Kind::kUnchanged:
            return {End(event, CORPDIR_EVENT_UNCHANGED)};
        case Kind::kDelivered:
            return {End(event, CORPDIR_EVENT_DELIVERED)};
        case Kind::kInvalidVersion:
            return {Failure(event, CORPDIR_EVENT_INVALID_VERSION, CORPDIR_ERR_VERSION)};
        case Kind::kFailed:
        case Kind::kRefused:
            return {Failure(event, CORPDIR_EVENT_FAILED, CodeOf(event.transfer.code))};
        case Kind::kNameFailed:
            return {Failure(event, CORPDIR_EVENT_NAME_FAILED, CORPDIR_ERR_NAME)};
        case Kind::kStartFailed:
            return {Failure(event, CORPDIR_EVENT_START_FAILED, CodeOfFailure(event))};
        case Kind::kPassFailed:
            return {Failure(
                event,
                event.serverFailed ? CORPDIR_EVENT_NO_SERVER_LEFT : CORPDIR_EVENT_CHECK_FAILED,
                CodeOfFailure(event))};
        case Kind::kRecovered:
            return {Common(event, CORPDIR_EVENT_RECOVERED)};
        case Kind::kWaiting:
            return {Common(event, CORPDIR_EVENT_WAITING)};
        case Kind::kWarning:
            return {Failure(event, CORPDIR_EVENT_WARNING, CORPDIR_OK)};
    }
    return {};
}

// Version 1.0 reported transfers: it had no events for checks, and delivered each directory file.
std::vector<EventData> FirstEvents(const client::Event& event)
{
    switch (event.kind)
    {
        case Kind::kProgress:
        case Kind::kFailed:
            if (event.transfer.kind == client::EventKind::kRefused)
            {
                return {Failure(event, CORPDIR_EVENT_REFUSED, CodeOf(event.transfer.code))};
            }
            return CurrentEvents(event);
        case Kind::kNewVersion:
        case Kind::kInvalidVersion:
            return {Common(event, CORPDIR_EVENT_TRANSFERRED)};
        case Kind::kUnchanged:
            if (!event.fetched)
            {
                return {Common(event, CORPDIR_EVENT_TRANSFERRED)};
            }
            [[fallthrough]];
        case Kind::kDelivered:
            return {End(event, CORPDIR_EVENT_TRANSFERRED), End(event, CORPDIR_EVENT_DELIVERED)};
        case Kind::kNameFailed:
            return {Failure(event, CORPDIR_EVENT_FAILED, CORPDIR_ERR_CONNECT)};
        default:
            return {};
    }
}

}  // namespace

corpdir_event EventData::Record() const
{
    corpdir_event record = {};
    record.size = sizeof record;
    record.kind = kind;
    record.code = code;
    record.server = server.c_str();
    record.file = file.c_str();
    record.reason = reason.c_str();
    record.bytes = bytes;
    record.total = total;
    record.name = name.c_str();
    record.version = version.c_str();
    record.path = path.c_str();
    record.time = time;
    record.step = step;
    record.reply = reply;
    record.failures = failures;
    record.seconds = seconds;
    return record;
}

corpdir_code CodeOf(unsigned int layerResult) noexcept
{
    switch (layerResult)
    {
        case TRAVEX_FTP_OK:
            return CORPDIR_OK;
        case TRAVEX_FTP_ERR_CIPHER:
            return CORPDIR_ERR_CIPHER;
        case TRAVEX_FTP_ERR_TRUST:
            return CORPDIR_ERR_AUTHORITIES;
        case TRAVEX_FTP_ERR_SYSTEM:
            return CORPDIR_ERR_SYSTEM;
        default:
            return layerResult >= TRAVEX_FTP_ERR_CONNECT && layerResult <= TRAVEX_FTP_ERR_TRANSFER
                       ? static_cast<corpdir_code>(layerResult)
                       : CORPDIR_ERR_REFUSED;
    }
}

std::vector<EventData> EventsOf(const client::Event& event, Edition edition)
{
    return edition == Edition::kFirst ? FirstEvents(event) : CurrentEvents(event);
}

}  // namespace corpdir_c
