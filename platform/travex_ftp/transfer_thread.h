// The transfer thread: owns libcurl's multi handle and drives all transfers.
#ifndef TRAVEX_FTP_TRANSFER_THREAD_H
#define TRAVEX_FTP_TRANSFER_THREAD_H

#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <vector>

#include "common/guard.h"
#include "connection.h"
#include "lane.h"
#include "notifier.h"
#include "task.h"
#include "worker.h"

namespace travex_ftp
{
// submit(), handleClosed() and stop() may be called on any thread; everything else happens on the
// thread itself, which is the only one to touch the multi handle but for curl_multi_wakeup.
class TransferThread
{
public:
    TransferThread(Notifier& notifier, const Limits& limits);
    ~TransferThread();
    TransferThread(const TransferThread&) = delete;
    TransferThread& operator=(const TransferThread&) = delete;

    // Throws std::system_error or std::bad_alloc.
    void start();

    // Lets the thread end: its transfers are cancelled, its connections closed. Waits for nothing.
    void stop() CORPDIR_EXCLUDES(guard_);

    Worker& worker()
    {
        return worker_;
    }

    // Accepts a task. Cannot fail; after stop() the task is dropped.
    void submit(TaskPtr task) CORPDIR_EXCLUDES(guard_);

    // The process ends. Does something only on the thread itself: when the client's verify callback
    // has called exit, the thread will not get to wind up.
    void leaveNoFiles();

    // Handles were closed: their transfers are to be dropped.
    void handleClosed();

private:
    void run();
    bool takeOrders() CORPDIR_EXCLUDES(guard_);
    void wake() CORPDIR_EXCLUDES(guard_);
    void queue(const TaskPtr& task);
    Lane* laneOf(const std::shared_ptr<const Settings>& settings) const;
    void dropClosed();
    void makeUpFor(Clock::time_point& since);
    void startWaiting();
    bool startFront(Lane& lane);
    Connection* idleFor(const Settings& settings) const;
    Connection* connectionFor(Lane& lane);
    Connection& addConnection(const std::shared_ptr<const Settings>& settings);
    void makeRoom();
    void beginTransfer(std::unique_ptr<Transfer> transfer, Connection& connection);
    void perform();
    void finishDone();
    bool queueAgain(const Transfer& transfer);
    size_t countWelcome(const Settings& settings) const;
    size_t countOpen(const Settings& settings) const;
    void failWaiting(const std::shared_ptr<const Settings>& settings, const Failure& failure);
    void tellOthers(const Transfer& done);
    void conclude(Connection& connection, std::unique_ptr<Transfer> transfer);
    void moveUngreeted();
    void retry(std::unique_ptr<Transfer> transfer);
    void expire();
    void wait();
    void readWatched();
    void forgetDead();
    void windUp();

    Notifier& notifier_;
    const Limits limits_;
    Sockets sockets_;
    CURLM* const multi_;  // until the thread has ended
    Worker worker_;

    common::Guard guard_;
    bool stopping_ CORPDIR_GUARDED_BY(guard_) = false;
    bool ended_ CORPDIR_GUARDED_BY(guard_) = false;  // the multi handle is gone
    TaskQueue<&Task::nextTransfer> submitted_ CORPDIR_GUARDED_BY(guard_);

    std::atomic<bool> someClosed_{false};  // handles, since the thread last looked

    // Transfer thread only.
    std::vector<std::unique_ptr<Lane>> lanes_;
    std::vector<std::unique_ptr<Connection>> connections_;
    std::vector<curl_waitfd> watched_;
    std::vector<Connection*> watchers_;  // whose socket watched_ holds at the same place
    unsigned int connectionNumber_ = 0;
};

}  // namespace travex_ftp

#endif
