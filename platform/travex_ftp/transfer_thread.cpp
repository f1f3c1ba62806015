#include "transfer_thread.h"

#include <algorithm>
#include <new>

#include "log.h"

namespace travex_ftp
{
namespace
{
// A wait without a deadline still ends now and then; it is woken whenever there is something to do.
constexpr milliseconds kLongestWait{60 * 1000};

}  // namespace

TransferThread::TransferThread(Notifier& notifier, const Limits& limits)
    : notifier_(notifier), limits_(limits), multi_(curl_multi_init())
{
    if (multi_ == nullptr)
    {
        throw std::bad_alloc();
    }
    // Our own count of connections rules; the pool must never close one behind our back.
    (void)curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS,
                            static_cast<long>(limits.connections) * 2);
}

// Of a thread that never ran, or that the end of the process has stopped.
TransferThread::~TransferThread()
{
    const common::Hold hold(guard_);
    if (!ended_)
    {
        (void)curl_multi_cleanup(multi_);
    }
}

void TransferThread::start()
{
    worker_.start([this] { run(); });
}

void TransferThread::stop()
{
    {
        const common::Hold hold(guard_);
        stopping_ = true;
    }
    sockets_.shutDownAll();
    wake();
}

// Nobody waits for the answer: the thread takes the task up when it is woken.
void TransferThread::submit(TaskPtr task)
{
    {
        const common::Hold hold(guard_);
        if (ended_)
        {
            return;
        }
        submitted_.push(std::move(task));
    }
    wake();
}

void TransferThread::leaveNoFiles()
{
    for (size_t i = 0; worker_.isCaller() && i != connections_.size(); ++i)
    {
        if (connections_[i]->transfer() != nullptr)
        {
            connections_[i]->transfer()->abandon();
        }
    }
}

void TransferThread::handleClosed()
{
    someClosed_ = true;
    wake();
}

// The one call of the multi handle that other threads may make.
void TransferThread::wake()
{
    const common::Hold hold(guard_);
    if (!ended_)
    {
        (void)curl_multi_wakeup(multi_);
    }
}

void TransferThread::run()
{
    while (takeOrders())
    {
        Clock::time_point since = Clock::now();
        dropClosed();
        perform();
        makeUpFor(since);
        expire();
        forgetDead();
        startWaiting();  // what ended above has made room
        moveUngreeted();
        makeUpFor(since);
        wait();
    }
    windUp();
}

// False when the thread is to end.
bool TransferThread::takeOrders()
{
    TaskQueue<&Task::nextTransfer> taken;
    {
        const common::Hold hold(guard_);
        taken.append(submitted_);
        if (stopping_)
        {
            return false;
        }
    }
    while (const TaskPtr task = taken.pop())
    {
        queue(task);
    }
    return true;
}

void TransferThread::queue(const TaskPtr& task)
{
    try
    {
        Lane* lane = laneOf(task->settings);
        if (lane == nullptr)
        {
            lanes_.push_back(std::make_unique<Lane>(task->settings));
            lane = lanes_.back().get();
        }
        lane->waiting.push(task);
    }
    catch (const std::bad_alloc&)
    {
        Failure failure{};
        (void)failSystem(failure, "transfer");
        notifier_.finished(task, failure, 0, TRAVEX_FTP_SIZE_UNKNOWN);
    }
}

// Null: nothing waits for the server, nor is there a connection to it.
Lane* TransferThread::laneOf(const std::shared_ptr<const Settings>& settings) const
{
    const auto found = std::find_if(lanes_.begin(), lanes_.end(),
                                    [&settings](const std::unique_ptr<Lane>& lane)
                                    { return lane->serves(settings); });
    return found != lanes_.end() ? found->get() : nullptr;
}

// Transfers and waiting tasks of handles that were closed end without a word.
void TransferThread::dropClosed()
{
    if (!someClosed_.exchange(false))
    {
        return;
    }
    for (const auto& connection : connections_)
    {
        if (connection->transfer() != nullptr && connection->transfer()->cancelled())
        {
            connection->end()->abandon();
        }
    }
    for (const auto& lane : lanes_)
    {
        TaskQueue<&Task::nextTransfer> kept;
        while (TaskPtr task = lane->waiting.pop())
        {
            if (!task->handle->closed)
            {
                kept.push(std::move(task));
            }
        }
        lane->waiting.append(kept);
    }
}

// Time that the thread spent in one blocking call is nobody's fault: it does not count against the
// limits of the others, whose answers may have been there all along.
void TransferThread::makeUpFor(Clock::time_point& since)
{
    constexpr milliseconds kNoticeable{50};
    const Clock::time_point now = Clock::now();
    const Clock::duration lost = now - since;
    since = now;
    if (lost < kNoticeable)
    {
        return;
    }
    for (const auto& connection : connections_)
    {
        if (connection->transfer() != nullptr)
        {
            connection->transfer()->makeUpFor(lost);
        }
    }
}

// A task of each server in turn: none waits for another server's.
void TransferThread::startWaiting()
{
    for (bool started = true; started;)
    {
        started = false;
        for (const auto& lane : lanes_)
        {
            started = (!lane->waiting.empty() && startFront(*lane)) || started;
        }
    }
}

// False when the lane's first task has to wait for a connection; those behind it wait with it.
bool TransferThread::startFront(Lane& lane)
{
    TaskPtr task;
    try
    {
        Connection* const connection = connectionFor(lane);
        if (connection == nullptr)
        {
            return false;
        }
        task = lane.waiting.pop();
        beginTransfer(std::make_unique<Transfer>(task, notifier_, limits_), *connection);
    }
    catch (const std::bad_alloc&)
    {
        Failure failure{};
        (void)failSystem(failure, "transfer");
        notifier_.finished(task != nullptr ? task : lane.waiting.pop(), failure, 0,
                           TRAVEX_FTP_SIZE_UNKNOWN);
    }
    return true;
}

Connection* TransferThread::idleFor(const Settings& settings) const
{
    const auto idle = std::find_if(connections_.begin(), connections_.end(),
                                   [&settings](const std::unique_ptr<Connection>& connection)
                                   { return connection->serves(settings); });
    return idle != connections_.end() ? idle->get() : nullptr;
}

// An idle connection that serves the lane, else a new one if there may be another.
Connection* TransferThread::connectionFor(Lane& lane)
{
    Connection* const idle = idleFor(lane.settings());
    if (idle != nullptr)
    {
        return idle;
    }
    size_t open = 0;
    bool proven = false;
    size_t proving = 0;
    for (const auto& connection : connections_)
    {
        if ((connection->alive() || connection->busy()) && connection->matches(lane.settings()))
        {
            ++open;
            proven = proven || connection->proven();
            proving += connection->transfer() != nullptr && !connection->proven() ? 1 : 0;
        }
    }
    const Clock::time_point now = Clock::now();
    // The first connection shows that the server serves us at all. One that hangs in the handshake
    // that is a blocking call must not do so on many connections one after the other; and only
    // beside one that is served is the refusal of another one no failure. From then on a few at a
    // time: what does not fit into a server's queue is offered to it again only after a second.
    if (proving >= (proven ? kProving : 1) || !lane.mayConnect(open, now))
    {
        return nullptr;
    }
    if (connections_.size() >= limits_.connections)
    {
        makeRoom();
        return nullptr;
    }
    Connection& added = addConnection(lane.waiting.front()->settings);
    lane.connects(open, now);
    return &added;
}

// Makes room first: what is pushed later in a callback-driven pass must not fail for memory.
Connection& TransferThread::addConnection(const std::shared_ptr<const Settings>& settings)
{
    const size_t count = connections_.size() + 1;
    connections_.reserve(count);
    watched_.reserve(count);
    watchers_.reserve(count);
    connections_.push_back(
        std::make_unique<Connection>(settings, limits_, sockets_, ++connectionNumber_));
    return *connections_.back();
}

size_t TransferThread::countWelcome(const Settings& settings) const
{
    const auto welcome = [&settings](const std::unique_ptr<Connection>& connection)
    { return connection->welcome() && connection->matches(settings); };
    return static_cast<size_t>(std::count_if(connections_.begin(), connections_.end(), welcome));
}

size_t TransferThread::countOpen(const Settings& settings) const
{
    const auto open = [&settings](const std::unique_ptr<Connection>& connection)
    { return connection->open() && connection->matches(settings); };
    return static_cast<size_t>(std::count_if(connections_.begin(), connections_.end(), open));
}

// A server that turns a connection away while it serves others of ours is not failing: the task
// waits for one of those. A 421 tells that it serves none of those that it has not greeted either;
// without a word their greetings may be on their way. False when there are none, or the reason was
// another one.
bool TransferThread::queueAgain(const Transfer& transfer)
{
    const std::shared_ptr<const Settings>& settings = transfer.task().settings;
    const size_t others = transfer.turnedAway() ? countWelcome(*settings)
                          : transfer.unheard()  ? countOpen(*settings)
                                                : 0;
    if (others == 0)
    {
        return false;
    }
    Lane* const lane = laneOf(settings);  // there as long as its connections are
    lane->turnedAway(others, Clock::now());
    TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: task %u waits: the server takes %zu connections",
                   settings->serverText.c_str(), transfer.task().id.value(), others);
    lane->waiting.pushFront(transfer.taskPtr());
    return true;
}

// Closes the connection that has been idle for longest, if there is one.
void TransferThread::makeRoom()
{
    Connection* oldest = nullptr;
    for (const auto& connection : connections_)
    {
        if (connection->idle() &&
            (oldest == nullptr || connection->idleSince() < oldest->idleSince()))
        {
            oldest = connection.get();
        }
    }
    if (oldest != nullptr)
    {
        oldest->leave(multi_);
    }
}

// Files and addresses that cannot work fail here, before anything is sent.
void TransferThread::beginTransfer(std::unique_ptr<Transfer> transfer, Connection& connection)
{
    if (!transfer->prepare())
    {
        transfer->finish();
    }
    else if (!connection.start(multi_, std::move(transfer)))
    {
        conclude(connection, connection.end());
    }
}

void TransferThread::perform()
{
    int running = 0;
    (void)curl_multi_perform(multi_, &running);
    finishDone();
}

// libcurl hands out a message for each transfer and each farewell that has ended.
void TransferThread::finishDone()
{
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi_, &left))
    {
        const CURLcode result = message->data.result;
        void* connection = nullptr;
        (void)curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &connection);
        Connection& ended = *static_cast<Connection*>(connection);
        conclude(ended, ended.end(result));
    }
}

// What comes of a transfer that has left its connection; null when it was the connection that has
// taken its leave.
void TransferThread::conclude(Connection& connection, std::unique_ptr<Transfer> transfer)
{
    if (transfer == nullptr)
    {
        return;
    }
    const bool success = !failed(transfer->failure()) && !transfer->cancelled();
    // After a failure it is not known whose turn it is: the next transfer could take a late reply
    // for its own. Some servers say something even after they have refused a file.
    if (connection.idle() && !success)
    {
        connection.shutDown();
        connection.leave(multi_);
    }
    if (transfer->cancelled())
    {
        transfer->abandon();
    }
    else if (!success && transfer->wantsFreshConnection())
    {
        retry(std::move(transfer));
    }
    else if (success || !queueAgain(*transfer))
    {
        // What took its time would take it again for each of those that waited to see what comes of
        // it; a quick failure they may find out for themselves.
        constexpr milliseconds kQuick{1000};
        if (!success && !connection.proven() && connection.age() >= kQuick)
        {
            failWaiting(transfer->task().settings, transfer->failure());
        }
        if (success)
        {
            tellOthers(*transfer);
        }
        transfer->finish();
    }
}

// Of a file in place, those that are still being downloaded to it.
void TransferThread::tellOthers(const Transfer& done)
{
    for (const auto& connection : connections_)
    {
        if (connection->transfer() != nullptr)
        {
            connection->transfer()->heed(done);
        }
    }
}

void TransferThread::failWaiting(const std::shared_ptr<const Settings>& settings,
                                 const Failure& failure)
{
    Lane* const lane = laneOf(settings);
    while (TaskPtr task = lane->waiting.pop())
    {
        Transfer transfer(std::move(task), notifier_, limits_);
        transfer.failure() = failure;
        transfer.finish();
    }
}

// Transfers that were not greeted in time go on with connections that are idle by now.
void TransferThread::moveUngreeted()
{
    const Clock::time_point now = Clock::now();
    for (size_t i = 0; i != connections_.size(); ++i)  // a retry adds to them
    {
        Connection& slow = *connections_[i];
        Connection* const idle =
            now < slow.patience() ? nullptr : idleFor(*slow.transfer()->task().settings);
        if (idle != nullptr && !idle->start(multi_, slow.end()))
        {
            conclude(*idle, idle->end());
        }
    }
}

// May exceed the number of connections, for the moment that the old one takes to close.
void TransferThread::retry(std::unique_ptr<Transfer> transfer)
{
    try
    {
        Connection& fresh = addConnection(transfer->task().settings);
        if (!fresh.start(multi_, std::move(transfer)))
        {
            fresh.end()->finish();
        }
    }
    catch (const std::bad_alloc&)
    {
        transfer->finish();  // with the failure that it had
    }
}

// Limits of transfers and farewells, and the patience with unused connections.
void TransferThread::expire()
{
    const Clock::time_point now = Clock::now();
    for (size_t i = 0; i != connections_.size(); ++i)  // a retry adds to them
    {
        Connection& connection = *connections_[i];
        if (now < connection.deadline())
        {
            continue;
        }
        if (connection.idle())
        {
            connection.leave(multi_);
        }
        else if (connection.expire(now))
        {
            conclude(connection, connection.end());
        }
    }
}

// Until libcurl's sockets or timers, ours, a limit, or another thread has something for us.
void TransferThread::wait()
{
    const Clock::time_point now = Clock::now();
    Clock::time_point next = now + kLongestWait;
    watched_.clear();
    watchers_.clear();
    for (const auto& connection : connections_)
    {
        next = std::min(next, connection->wakeAt(now));
        const curl_socket_t socket = connection->watched(now);
        if (socket != CURL_SOCKET_BAD)
        {
            watched_.push_back({socket, CURL_WAIT_POLLIN, 0});
            watchers_.push_back(connection.get());
        }
    }
    for (const auto& lane : lanes_)
    {
        if (!lane->waiting.empty() && lane->triesAt() > now)
        {
            next = std::min(next, lane->triesAt());
        }
    }
    // Rounded up: a wait that ends before its deadline would be followed by one of 0 ms.
    const auto timeout = std::chrono::ceil<milliseconds>(std::max(next, now) - now).count();
    (void)curl_multi_poll(multi_, watched_.data(), static_cast<unsigned int>(watched_.size()),
                          static_cast<int>(timeout), nullptr);
    readWatched();
}

void TransferThread::readWatched()
{
    const Clock::time_point now = Clock::now();
    for (size_t i = 0; i != watched_.size(); ++i)
    {
        if (watched_[i].revents == 0)
        {
            continue;
        }
        // What an idle server says is that it has had enough.
        if (watchers_[i]->idle())
        {
            watchers_[i]->leave(multi_);
        }
        else
        {
            watchers_[i]->woken(now);
        }
    }
}

void TransferThread::forgetDead()
{
    const auto dead = [](const std::unique_ptr<Connection>& connection)
    { return !connection->alive() && !connection->busy(); };
    connections_.erase(std::remove_if(connections_.begin(), connections_.end(), dead),
                       connections_.end());
    const auto deserted = [this](const std::unique_ptr<Lane>& lane)
    {
        return lane->waiting.empty() &&
               std::none_of(connections_.begin(), connections_.end(),
                            [&lane](const std::unique_ptr<Connection>& connection)
                            { return connection->matches(lane->settings()); });
    };
    lanes_.erase(std::remove_if(lanes_.begin(), lanes_.end(), deserted), lanes_.end());
}

// All sockets were shut down by stop(): nothing here waits for a server. Nothing that a connection
// or a task knows outlives the thread, whoever joins it and when. But when the process is ending,
// OpenSSL may be gone at any moment: then only the files are seen to.
void TransferThread::windUp()
{
    const bool exiting = Worker::exiting();
    for (const auto& connection : connections_)
    {
        if (connection->transfer() != nullptr)
        {
            connection->transfer()->abandon();
        }
        if (!exiting)
        {
            (void)connection->end();
        }
    }
    if (exiting)
    {
        return;
    }
    lanes_.clear();
    TaskQueue<&Task::nextTransfer> dropped;
    {
        const common::Hold hold(guard_);
        dropped.append(submitted_);
        ended_ = true;
    }
    (void)curl_multi_cleanup(multi_);
    connections_.clear();
}

}  // namespace travex_ftp
