#include "transfer.h"

#include <algorithm>

#include "log.h"
#include "observer.h"

namespace travex_ftp
{
namespace
{
double seconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

}  // namespace

Transfer::Transfer(TaskPtr task, Notifier& notifier, const Limits& limits)
    : task_(std::move(task)),
      notifier_(notifier),
      limits_(limits),
      begun_(Clock::now()),
      tryBegun_(begun_),
      waitBegun_(begun_),
      waitUntil_(begun_ + limits.connect),
      reported_(begun_)
{
}

bool Transfer::prepare()
{
    // Connecting to the zero address would reach the local host, and hand it the password.
    if (task_->settings->server.zero())
    {
        return fail(failure_, TRAVEX_FTP_ERR_CONNECT, "the server address is zero");
    }
    return file_.open(task_->directory, task_->localFile, failure_);
}

// All that an earlier try has learnt is forgotten, but not the time that it took.
void Transfer::begin(bool reused)
{
    retried_ = retried_ || reused_;
    reused_ = reused;
    failure_ = Failure{};
    course_ = tagTRAVEX_FTP_S_COURSE{};
    course_.ulReused = reused ? 1 : 0;
    overtaken_ = false;
    tryBegun_ = Clock::now();
    replies_ = Replies(&task_->settings->password);
    waitFor(reused ? Wait::Reply : Wait::Connection, reused ? limits_.response : limits_.connect);
    TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: task %u: %s on a %s connection",
                   task_->settings->serverText.c_str(), task_->id.value(),
                   task_->serverFile.c_str(), reused ? "known" : "new");
}

uint64_t Transfer::elapsed() const
{
    using std::chrono::microseconds;
    const auto since = std::chrono::duration_cast<microseconds>(Clock::now() - tryBegun_);
    return std::max<uint64_t>(1, static_cast<uint64_t>(since.count()));
}

void Transfer::makeUpFor(Clock::duration lost)
{
    begun_ += lost;
    waitBegun_ += lost;
    waitUntil_ += lost;
}

// Restarts the clock: called with every sign of life of the peer that counts as one.
void Transfer::waitFor(Wait what, milliseconds limit)
{
    wait_ = what;
    waitBegun_ = Clock::now();
    waitUntil_ = waitBegun_ + limit;
    windowBegin_ = received_;
}

void Transfer::connecting(bool data)
{
    // For a data connection libcurl keeps the same limit, which comes first.
    constexpr milliseconds kMargin{1000};
    waitFor(data ? Wait::DataConnection : Wait::Connection,
            data ? limits_.connect + kMargin : limits_.connect);
}

void Transfer::shaking()
{
    waitFor(Wait::Handshake, limits_.handshake);
}

void Transfer::commandSent(const char* line, size_t length)
{
    replies_.commandSent(line, length);
    waitFor(Wait::Reply, limits_.response);
}

bool Transfer::replyHeard(const char* line, size_t length)
{
    switch (replies_.lineHeard(line, length, limits_))
    {
        case Replies::Line::TooMuch:
            return fail(failure_, TRAVEX_FTP_ERR_REPLY, "the server says too much: %llu lines",
                        static_cast<unsigned long long>(replies_.lines()));
        case Replies::Line::BadSize:
            return fail(failure_, TRAVEX_FTP_ERR_REPLY, "SIZE answered without a size: %u %s",
                        replies_.code(), replies_.text());
        case Replies::Line::Fine:
            break;
    }
    if (replies_.opened() && course_.ullOpened == 0)
    {
        course_.ullOpened = elapsed();
    }
    // A size beyond the limit need not be downloaded to be refused; but that the server does not
    // give the file at all comes first.
    return !replies_.opened() || sizeAllowed(total());
}

void Transfer::goOn()
{
    if (replies_.opened())
    {
        waitFor(Wait::File, limits_.stall);
    }
    else
    {
        waitFor(Wait::Reply, limits_.response);
    }
}

bool Transfer::sizeAllowed(uint64_t size)
{
    if (size != TRAVEX_FTP_SIZE_UNKNOWN && size > limits_.fileBytes)
    {
        return fail(failure_, TRAVEX_FTP_ERR_TOO_LARGE, "the file is larger than %llu bytes",
                    static_cast<unsigned long long>(limits_.fileBytes));
    }
    return true;
}

// The window of the pace is not moved by a single byte: expire() looks at what came in all of it,
// so that a server cannot keep a transfer alive for ever by a byte now and then.
bool Transfer::dataArrived(const char* data, size_t length)
{
    if (wait_ != Wait::File)
    {
        waitFor(Wait::File, limits_.stall);
    }
    received_ += length;
    if (!sizeAllowed(received_) || !file_.write(data, length, failure_))
    {
        return false;
    }
    report();
    return true;
}

// What SIZE said comes first: it was asked for, while the text of a 150 is for people.
uint64_t Transfer::total() const
{
    return replies_.sizeAnswered() != TRAVEX_FTP_SIZE_UNKNOWN ? replies_.sizeAnswered()
                                                              : replies_.sizeOpened();
}

// Seldom asked for and never often told: the clock is read before the observer's lock is taken.
void Transfer::report()
{
    const Clock::time_point now = Clock::now();
    if (now - reported_ >= limits_.observe && observed())
    {
        reported_ = now;
        notifier_.progress(task_, received_, total());
    }
}

Clock::time_point Transfer::deadline() const
{
    return std::min(waitUntil_, begun_ + limits_.transfer);
}

void Transfer::expire(Clock::time_point now, bool connected)
{
    if (now >= begun_ + limits_.transfer)
    {
        (void)fail(failure_, TRAVEX_FTP_ERR_TIMEOUT, "not done in %g s", seconds(limits_.transfer));
        return;
    }
    if (now < waitUntil_)
    {
        return;
    }
    switch (wait_)
    {
        case Wait::Connection:
        case Wait::DataConnection:
            // libcurl does not tell when a connection is there; what is missing then is a reply.
            if (connected)
            {
                wait_ = Wait::Reply;
                waitUntil_ = waitBegun_ + std::max(limits_.connect, limits_.response);
                return expire(now, connected);
            }
            (void)fail(failure_, TRAVEX_FTP_ERR_TIMEOUT, "no %sconnection in %g s",
                       wait_ == Wait::DataConnection ? "data " : "", seconds(limits_.connect));
            return;
        case Wait::Handshake:
            (void)fail(failure_, TRAVEX_FTP_ERR_TIMEOUT, "no end of the TLS handshake in %g s",
                       seconds(limits_.handshake));
            return;
        case Wait::Reply:
            return expireReply();
        case Wait::File:
            if (received_ - windowBegin_ >= limits_.stallBytes)
            {
                return waitFor(Wait::File, limits_.stall);
            }
            (void)fail(failure_, TRAVEX_FTP_ERR_TIMEOUT, "stalled: %llu bytes in %g s",
                       static_cast<unsigned long long>(received_ - windowBegin_),
                       seconds(limits_.stall));
            return;
    }
}

void Transfer::expireReply()
{
    const bool greeting = replies_.verb()[0] == '\0';
    (void)fail(failure_, TRAVEX_FTP_ERR_TIMEOUT, "no %s%s in %g s",
               greeting ? "greeting" : "answer to ", replies_.verb(),
               seconds(waitUntil_ - waitBegun_));
}

// On a connection that was used before, and before a proper answer; after one the server has begun
// to work on this transfer, and what fails then would fail again. An answer that makes no sense may
// be one that nobody asked for after the transfer before.
bool Transfer::wantsFreshConnection() const
{
    const bool unanswered = replies_.lines() == 0 || replies_.code() == Replies::kServiceEnds ||
                            failure_.ulRet == TRAVEX_FTP_ERR_REPLY;
    return reused_ && !retried_ && unanswered && received_ == 0;
}

bool Transfer::turnedAway() const
{
    return replies_.code() == Replies::kServiceEnds && replies_.verb()[0] == '\0';
}

bool Transfer::unheard() const
{
    return replies_.lines() == 0 && replies_.verb()[0] == '\0' &&
           (failure_.ulRet == TRAVEX_FTP_ERR_CONNECT || failure_.ulRet == TRAVEX_FTP_ERR_TRANSFER);
}

bool Transfer::checkComplete()
{
    if (!replies_.opened() || (replies_.code() != 226 && replies_.code() != 250))
    {
        return fail(failure_, TRAVEX_FTP_ERR_PARTIAL,
                    "the end of the file was not confirmed: %u %s", replies_.code(),
                    replies_.text());
    }
    // Each announcement on its own: they may disagree with each other as well.
    for (const uint64_t announced : {replies_.sizeAnswered(), replies_.sizeOpened()})
    {
        if (announced != TRAVEX_FTP_SIZE_UNKNOWN && announced != received_)
        {
            return fail(failure_, TRAVEX_FTP_ERR_PARTIAL, "%llu bytes arrived of %llu announced",
                        static_cast<unsigned long long>(received_),
                        static_cast<unsigned long long>(announced));
        }
    }
    return true;
}

void Transfer::heed(const Transfer& other)
{
    overtaken_ =
        overtaken_ || (tryBegun_ < other.tryBegun_ && task_->localFile == other.task_->localFile &&
                       task_->directory == other.task_->directory);
}

// Flushing may take its time, in which the handle may be closed. A file that is older than the one
// in place has arrived as well as any, but is of no use.
bool Transfer::commit()
{
    if (overtaken_)
    {
        TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: task %u: %s is in place already, and newer",
                       task_->settings->serverText.c_str(), task_->id.value(),
                       task_->localFile.c_str());
        return true;
    }
    return file_.complete(failure_) && !cancelled() && file_.publish(failure_);
}

void Transfer::abandon()
{
    file_.discard();
}

// The reason is completed here, once, so that log, notification and observer say the same.
void Transfer::finish()
{
    file_.discard();
    course_.ullEnded = elapsed();
    const Settings& settings = *task_->settings;
    if (failed(failure_))
    {
        // The replies are free of the password; what libcurl says of them may not be.
        mask(failure_.acReason, Clear(settings.password).text());
        prefix(failure_, settings.serverText.c_str());
        TRAVEX_FTP_LOG(CORPDIR_LOG_ERROR, "%s (task %u, %s)", failure_.acReason, task_->id.value(),
                       task_->serverFile.c_str());
    }
    else
    {
        TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: task %u: %s complete, %llu bytes in %.3f s",
                       settings.serverText.c_str(), task_->id.value(), task_->serverFile.c_str(),
                       static_cast<unsigned long long>(received_), seconds(Clock::now() - begun_));
    }
    notifier_.finished(task_, failure_, received_, total(), course_);
}

}  // namespace travex_ftp
