#include "layer.h"

#include <algorithm>
#include <atomic>
#include <new>

#include <openssl/crypto.h>

#include "base/handle.h"
#include "base/process_end.h"

namespace travex_ftp
{
// The state of the layer outside its runs. Created on first use and never destroyed: calls may come
// until the process is gone.
struct World
{
    base::Mutex mutex;
    std::shared_ptr<Layer> running CORPDIR_GUARDED_BY(mutex);
    std::vector<std::shared_ptr<Layer>> ended
        CORPDIR_GUARDED_BY(mutex);  // runs whose threads are not all joined

    // The layer has threads; and a fork left this process without them. Read before any lock is
    // taken: in the child of a fork another thread, which does not exist there, may hold the lock.
    std::atomic<bool> hasThreads{false};
    std::atomic<bool> forked{false};

    static World& Get();
    static void StartOnce();
    static void AtExit(Clock::time_point deadline);
    static void OnFork();

    bool Install(const std::shared_ptr<Layer>& layer) CORPDIR_EXCLUDES(mutex);
    std::shared_ptr<Layer> Retire() CORPDIR_EXCLUDES(mutex);
    std::shared_ptr<Layer> FirstEnded(bool onlyOver) CORPDIR_EXCLUDES(mutex);
    void Forget(const std::shared_ptr<Layer>& layer) CORPDIR_EXCLUDES(mutex);
    void JoinEnded(bool onlyOver) CORPDIR_EXCLUDES(mutex);
};

World& World::Get()
{
    static World* const world = new World;
    return *world;
}

// Our stage is registered after OpenSSL's exit handler, and so runs before it. The flag makes
// OpenSSL register its handler and load nothing: plain FTP needs nothing more of it.
void World::StartOnce()
{
    static const bool started =
        OPENSSL_init_crypto(OPENSSL_INIT_ATFORK, nullptr) == 1 &&
        base::ProcessEnd::Register<base::EndStage::kTransfers>(AtExit, OnFork);
    if (!started)
    {
        throw std::bad_alloc();
    }
}

// False when another thread was faster, or the process is ending. Throws std::bad_alloc.
bool World::Install(const std::shared_ptr<Layer>& layer)
{
    const base::MutexLock lock(mutex);
    if (base::ProcessEnd::HasBegun(base::EndStage::kTransfers) || running != nullptr)
    {
        return false;
    }
    ended.reserve(ended.size() + 1);  // Retire() needs no memory
    running = layer;
    hasThreads = true;
    return true;
}

// Takes the running layer out of service, without waiting; null if there is none.
std::shared_ptr<Layer> World::Retire()
{
    const base::MutexLock lock(mutex);
    std::shared_ptr<Layer> layer = std::move(running);
    if (layer != nullptr)
    {
        ended.push_back(layer);
    }
    return layer;
}

std::shared_ptr<Layer> World::FirstEnded(bool onlyOver)
{
    const base::MutexLock lock(mutex);
    const auto found =
        std::find_if(ended.begin(), ended.end(),
                     [onlyOver](const auto& layer) { return !onlyOver || layer->Over(); });
    return found == ended.end() ? nullptr : *found;
}

// Without threads any process may start the layer: the child of a fork made now may too.
void World::Forget(const std::shared_ptr<Layer>& layer)
{
    const base::MutexLock lock(mutex);
    ended.erase(std::remove(ended.begin(), ended.end(), layer), ended.end());
    hasThreads = running != nullptr || !ended.empty();
}

// A run stays in the list until its threads are joined, so that every caller waits for them.
void World::JoinEnded(bool onlyOver)
{
    while (const std::shared_ptr<Layer> layer = FirstEnded(onlyOver))
    {
        (void)layer->Join(Clock::time_point::max());
        Forget(layer);
    }
}

// From here on no notification begins. A notification in progress, and the current step of each
// transfer thread, are waited for until the deadline. Nothing is destroyed: a thread that is busy
// after it still finds all objects that it uses.
void World::AtExit(Clock::time_point deadline)
{
    World& world = Get();
    if (world.forked)
    {
        return;
    }
    (void)world.Retire();
    static auto* const left = new std::vector<std::shared_ptr<Layer>>;
    {
        const base::MutexLock lock(world.mutex);
        left->swap(world.ended);
    }
    for (const std::shared_ptr<Layer>& layer : *left)
    {
        layer->Stop();
        layer->LeaveNoFiles();
    }
    for (const std::shared_ptr<Layer>& layer : *left)
    {
        (void)layer->Join(deadline);
    }
}

void World::OnFork()
{
    World& world = Get();
    world.forked = world.forked || world.hasThreads;
}

bool Layer::Forked()
{
    return World::Get().forked;
}

std::shared_ptr<Layer> Layer::Running()
{
    World& world = World::Get();
    const base::MutexLock lock(world.mutex);
    return world.running;
}

bool Layer::Init()
{
    World::StartOnce();
    World& world = World::Get();
    world.JoinEnded(true);
    if (Running() != nullptr)
    {
        return true;
    }
    const auto layer = std::make_shared<Layer>();
    try
    {
        layer->m_notifier.Start();
        if (world.Install(layer))
        {
            return true;
        }
    }
    catch (...)
    {
        (void)layer->Join(Clock::time_point::max());  // half a start is undone like a whole one
        throw;
    }
    (void)layer->Join(Clock::time_point::max());
    // Another thread's start was faster and counts for this call too, even if its run has ended.
    return !base::ProcessEnd::HasBegun(base::EndStage::kTransfers);
}

void Layer::Uninit()
{
    World& world = World::Get();
    if (const std::shared_ptr<Layer> layer = world.Retire())
    {
        layer->Stop();
    }
    // A thread of the layer cannot wait for itself; its run is joined by a later call.
    if (!Worker::CallerIsOurs())
    {
        world.JoinEnded(false);
    }
}

// The notifier first: a transfer that ends from here on is not reported. A handle is always in one
// of the lists: each caller that joins sees it.
void Layer::Stop()
{
    m_notifier.Stop();
    const base::MutexLock lock(m_mutex);
    for (const auto& entry : m_handles)
    {
        Close(entry.second);
    }
    m_handles.clear();
}

void Layer::Close(const std::shared_ptr<Handle>& handle)
{
    handle->Cancel();
    m_closed.push_back(handle);
}

std::vector<std::shared_ptr<Handle>> Layer::ClosedHandles()
{
    const base::MutexLock lock(m_mutex);
    return m_closed;
}

// Joins the threads of closed handles that have ended, so that they do not pile up for a client
// that makes and closes many handles.
void Layer::Reap()
{
    for (const std::shared_ptr<Handle>& handle : ClosedHandles())
    {
        if (handle->Thread().Over())
        {
            (void)handle->Thread().Join();
            const base::MutexLock lock(m_mutex);
            m_closed.erase(std::remove(m_closed.begin(), m_closed.end(), handle), m_closed.end());
        }
    }
}

// Stops first: another caller may have begun to end the run, but not stopped its handles yet.
bool Layer::Join(Clock::time_point deadline)
{
    Stop();
    bool joined = !m_notifier.Thread().IsCaller() && m_notifier.Thread().Join(deadline);
    for (const std::shared_ptr<Handle>& handle : ClosedHandles())
    {
        Worker& thread = handle->Thread();
        joined = !thread.IsCaller() && thread.Join(deadline) && joined;
    }
    return joined;
}

bool Layer::Over()
{
    const base::MutexLock lock(m_mutex);
    return m_handles.empty() && m_notifier.Thread().Over() &&
           std::all_of(m_closed.begin(), m_closed.end(),
                       [](const auto& handle) { return handle->Thread().Over(); });
}

void Layer::LeaveNoFiles()
{
    for (const std::shared_ptr<Handle>& handle : ClosedHandles())
    {
        handle->LeaveNoFile();
    }
}

TRAVEX_FTP_HANDLE Layer::CreateHandle()
{
    const auto handle = base::NewHandle<TRAVEX_FTP_HANDLE>();
    Reap();
    auto state = std::make_shared<Handle>(m_notifier);
    const base::MutexLock lock(m_mutex);
    m_handles.emplace(handle, std::move(state));
    m_closed.reserve(m_closed.size() + m_handles.size());  // closing needs no memory
    return handle;
}

bool Layer::CloseHandle(TRAVEX_FTP_HANDLE handle)
{
    const base::MutexLock lock(m_mutex);
    const auto found = m_handles.find(handle);
    if (found == m_handles.end())
    {
        return false;
    }
    Close(found->second);
    m_handles.erase(found);
    return true;
}

std::shared_ptr<Handle> Layer::Find(TRAVEX_FTP_HANDLE handle)
{
    const base::MutexLock lock(m_mutex);
    const auto found = m_handles.find(handle);
    return found == m_handles.end() ? nullptr : found->second;
}

}  // namespace travex_ftp
