#include "layer.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "curl_memory.h"

namespace travex_ftp
{
// The state of the layer outside its runs. Created on first use and never destroyed: calls and
// threads may come until the process is gone.
struct World
{
    common::Guard guard;
    std::shared_ptr<Layer> running CORPDIR_GUARDED_BY(guard);
    std::shared_ptr<Layer> ended
        CORPDIR_GUARDED_BY(guard);  // runs whose threads are not all joined
    bool exiting CORPDIR_GUARDED_BY(guard) = false;

    // The process that the threads belong to, 0 when there are none. Read before any lock is taken:
    // in the child of a fork a lock may be held by a thread that does not exist there.
    std::atomic<pid_t> owner{0};

    static World& get();
    static void startOnce();
    static void atExit();

    bool install(const std::shared_ptr<Layer>& layer) CORPDIR_EXCLUDES(guard);
    std::shared_ptr<Layer> retire() CORPDIR_EXCLUDES(guard);
    std::shared_ptr<Layer> firstEnded(bool onlyOver) CORPDIR_EXCLUDES(guard);
    void forget(const std::shared_ptr<Layer>& layer) CORPDIR_EXCLUDES(guard);
    void joinEnded(bool onlyOver) CORPDIR_EXCLUDES(guard);
};

World& World::get()
{
    static World* const world = new World;
    return *world;
}

// Our exit handler is registered after those of the libraries, and so runs before them.
void World::startOnce()
{
    static const bool started = startLibraries() && std::atexit(atExit) == 0;
    if (!started)
    {
        throw std::bad_alloc();
    }
}

// False when another thread was faster, or the process is ending.
bool World::install(const std::shared_ptr<Layer>& layer)
{
    const common::Hold hold(guard);
    if (exiting || running != nullptr)
    {
        return false;
    }
    running = layer;
    owner = getpid();
    return true;
}

// Ends the running layer, without waiting; null if there is none.
std::shared_ptr<Layer> World::retire()
{
    const common::Hold hold(guard);
    std::shared_ptr<Layer> layer = std::move(running);
    if (layer != nullptr)
    {
        layer->nextEnded_ = std::move(ended);
        ended = layer;
    }
    return layer;
}

std::shared_ptr<Layer> World::firstEnded(bool onlyOver)
{
    const common::Hold hold(guard);
    std::shared_ptr<Layer> layer = ended;
    while (layer != nullptr && onlyOver && !layer->over())
    {
        layer = layer->nextEnded_;
    }
    return layer;
}

// Without threads any process may start the layer: a fork made now is free to.
void World::forget(const std::shared_ptr<Layer>& layer)
{
    const common::Hold hold(guard);
    for (std::shared_ptr<Layer>* link = &ended; *link != nullptr; link = &(*link)->nextEnded_)
    {
        if (*link == layer)
        {
            std::shared_ptr<Layer> next = std::move(layer->nextEnded_);
            *link = std::move(next);
            break;
        }
    }
    owner = running == nullptr && ended == nullptr ? 0 : owner.load();
}

// A run stays in the list until its threads are joined, so that every caller waits for them.
void World::joinEnded(bool onlyOver)
{
    while (const std::shared_ptr<Layer> layer = firstEnded(onlyOver))
    {
        (void)layer->join(Clock::time_point::max());
        forget(layer);
    }
}

// From here on no notification begins. One in progress, and what the transfer thread is at, is
// waited for within kExitPatience. Nothing is destroyed: a thread that is still busy then will find
// all it touches where it was.
void World::atExit()
{
    World& world = get();
    if (world.owner != getpid())
    {
        return;
    }
    Worker::beginExit();
    (void)world.retire();
    static std::shared_ptr<Layer>* const left = new std::shared_ptr<Layer>;
    {
        const common::Hold hold(world.guard);
        world.exiting = true;
        *left = std::move(world.ended);
    }
    for (Layer* layer = left->get(); layer != nullptr; layer = layer->nextEnded_.get())
    {
        layer->stop();
        layer->transfers_.leaveNoFiles();
    }
    const Clock::time_point deadline = Clock::now() + kExitPatience;
    for (Layer* layer = left->get(); layer != nullptr; layer = layer->nextEnded_.get())
    {
        (void)layer->join(deadline);
    }
    Worker::endExit();
}

bool Layer::forked()
{
    const pid_t owner = World::get().owner;
    return owner != 0 && owner != getpid();
}

std::shared_ptr<Layer> Layer::running()
{
    World& world = World::get();
    const common::Hold hold(world.guard);
    return world.running;
}

bool Layer::init()
{
    World::startOnce();
    World& world = World::get();
    world.joinEnded(true);
    if (running() != nullptr)
    {
        return true;
    }
    const auto layer = std::make_shared<Layer>();
    layer->start();
    if (world.install(layer))
    {
        return true;
    }
    layer->stop();
    (void)layer->join(Clock::time_point::max());
    // Another thread's start was faster, and is as good; whether its run has ended since or not.
    return !Worker::exiting();
}

void Layer::uninit()
{
    World& world = World::get();
    if (const std::shared_ptr<Layer> layer = world.retire())
    {
        layer->stop();
    }
    // A thread of the layer cannot wait for itself; its run is joined by a later call.
    if (!Worker::callerIsOurs())
    {
        world.joinEnded(false);
    }
}

Layer::Layer() : transfers_(notifier_, Limits::fromEnvironment()) {}

// Half a start is undone like a whole one.
void Layer::start()
{
    try
    {
        notifier_.start();
        transfers_.start();
    }
    catch (...)
    {
        stop();
        (void)join(Clock::time_point::max());
        throw;
    }
}

// The notifier first: what the transfer thread still finishes is told to nobody. Then the handles:
// nobody may wait for the threads, and until they end nothing more is to come of the transfers.
void Layer::stop()
{
    notifier_.stop();
    std::unordered_map<TRAVEX_FTP_HANDLE, std::shared_ptr<Handle>> closed;
    {
        const common::Hold hold(guard_);
        closed.swap(handles_);
    }
    for (const auto& entry : closed)
    {
        notifier_.close(*entry.second);
    }
    transfers_.stop();
}

bool Layer::join(Clock::time_point deadline)
{
    bool joined = true;
    for (Worker* worker : {&notifier_.worker(), &transfers_.worker()})
    {
        joined = !worker->isCaller() && worker->join(deadline) && joined;
    }
    return joined;
}

bool Layer::over()
{
    return notifier_.worker().over() && transfers_.worker().over();
}

TRAVEX_FTP_HANDLE Layer::createHandle()
{
    // Numbers in the guise of pointers, counted through the life of the process. Odd ones, so that
    // none is ever mistaken for the address of something.
    static std::atomic<uintptr_t> last{1};
    const uintptr_t number = last += 2;
    TRAVEX_FTP_HANDLE handle = nullptr;
    static_assert(sizeof(void*) == sizeof number, "a handle holds a number");
    memcpy(&handle, &number, sizeof number);
    auto state = std::make_shared<Handle>();
    const common::Hold hold(guard_);
    handles_.emplace(handle, std::move(state));
    return handle;
}

std::shared_ptr<Handle> Layer::find(TRAVEX_FTP_HANDLE handle)
{
    const auto found = handles_.find(handle);
    return found == handles_.end() ? nullptr : found->second;
}

// The handle is unknown to new calls before its notifications are stopped.
bool Layer::closeHandle(TRAVEX_FTP_HANDLE handle)
{
    std::shared_ptr<Handle> closed;
    {
        const common::Hold hold(guard_);
        closed = find(handle);
        handles_.erase(handle);
    }
    if (closed == nullptr)
    {
        return false;
    }
    notifier_.close(*closed);
    transfers_.handleClosed();
    return true;
}

bool Layer::setSettings(TRAVEX_FTP_HANDLE handle, std::shared_ptr<const Settings> settings)
{
    const common::Hold hold(guard_);
    const std::shared_ptr<Handle> found = find(handle);
    if (found != nullptr)
    {
        found->settings.swap(settings);  // the old ones go after the lock
    }
    return found != nullptr;
}

bool Layer::setDataParam(TRAVEX_FTP_HANDLE handle)
{
    const common::Hold hold(guard_);
    const std::shared_ptr<Handle> found = find(handle);
    if (found != nullptr)
    {
        found->dataParam = true;
    }
    return found != nullptr;
}

bool Layer::look(TRAVEX_FTP_HANDLE handle, View& view)
{
    const common::Hold hold(guard_);
    view.handle = find(handle);
    if (view.handle != nullptr)
    {
        view.settings = view.handle->settings;
        view.dataParam = view.handle->dataParam;
    }
    return view.handle != nullptr;
}

}  // namespace travex_ftp
