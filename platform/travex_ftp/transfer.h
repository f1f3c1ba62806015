// One task on its way: what arrives, how long it may take, and whether it came whole.
#ifndef TRAVEX_FTP_TRANSFER_H
#define TRAVEX_FTP_TRANSFER_H

#include "download_file.h"
#include "limits.h"
#include "notifier.h"
#include "replies.h"
#include "task.h"

namespace travex_ftp
{
// Knows nothing of libcurl: it is told what happens on the connection. Transfer thread only.
class Transfer
{
public:
    Transfer(TaskPtr task, Notifier& notifier, const Limits& limits);

    const Task& task() const
    {
        return *task_;
    }
    const TaskPtr& taskPtr() const
    {
        return task_;
    }
    const Replies& replies() const
    {
        return replies_;
    }
    Failure& failure()
    {
        return failure_;
    }
    uint64_t received() const
    {
        return received_;
    }

    // What is known of the connection is filled in by it.
    tagTRAVEX_FTP_S_COURSE& course()
    {
        return course_;
    }

    // Microseconds since this try began, never 0.
    uint64_t elapsed() const;

    // Another transfer has put its file in place. If it is to the same target and began later, this
    // one's file is older, and will not replace it.
    void heed(const Transfer& other);

    bool reused() const
    {
        return reused_;
    }
    bool connectingData() const
    {
        return wait_ == Wait::DataConnection;
    }

    // Its handle was closed: nobody is told of it any more, and nothing of it may begin.
    bool cancelled() const
    {
        return task_->handle->closed;
    }

    // Moves all limits on time by what was lost for it.
    void makeUpFor(Clock::duration lost);

    // All that can fail without a connection: address, directory, file. Throws std::bad_alloc.
    bool prepare();

    // A try begins: on a connection that was used before (`reused`) or on a new one.
    void begin(bool reused);

    // Events of the connection. False: the transfer has failed and must end.
    void connecting(bool data);
    void shaking();
    void commandSent(const char* line, size_t length);
    bool replyHeard(const char* line, size_t length);
    bool dataArrived(const char* data, size_t length);

    // Nothing is left to wait for but what the last reply announced: the file, or the next reply.
    void goOn();

    // When to look at expire(); it sets the failure if nothing came in time. `connected`: the TCP
    // connection that is being waited for is there.
    Clock::time_point deadline() const;
    void expire(Clock::time_point now, bool connected);

    // The try failed as it does on a connection that the server has given up meanwhile: another
    // one, on a new connection, is due. Asked at most once in vain.
    bool wantsFreshConnection() const;

    // The server greeted with a 421: it has as many connections as it wants.
    bool turnedAway() const;

    // The server refused the connection, or dropped it before this transfer said or heard anything;
    // some do that instead.
    bool unheard() const;

    // All has arrived by what the server said: 226, and the sizes agree.
    bool checkComplete();

    // The file in place, or a failure.
    bool commit();

    // Ends it without a word to anyone: no file is left.
    void abandon();

    // Tells and logs the outcome.
    void finish();

private:
    enum class Wait
    {
        Connection,
        DataConnection,
        Handshake,
        Reply,
        File,
    };

    void waitFor(Wait what, milliseconds limit);
    void expireReply();
    bool sizeAllowed(uint64_t size);
    uint64_t total() const;
    void report();

    const TaskPtr task_;
    Notifier& notifier_;
    const Limits& limits_;
    Clock::time_point begun_;
    Clock::time_point tryBegun_;
    DownloadFile file_;
    Replies replies_;
    Failure failure_{};
    tagTRAVEX_FTP_S_COURSE course_{};
    bool reused_ = false;
    bool retried_ = false;
    bool overtaken_ = false;
    uint64_t received_ = 0;

    Wait wait_ = Wait::Connection;
    Clock::time_point waitBegun_;
    Clock::time_point waitUntil_;
    uint64_t windowBegin_ = 0;  // bytes received when the window of the data channel's pace began
    Clock::time_point reported_;
};

}  // namespace travex_ftp

#endif
