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
struct ProcessState
{
    base::Mutex mutex;
    std::shared_ptr<Layer> running CORPDIR_GUARDED_BY(mutex);
    std::vector<std::shared_ptr<Layer>> stopped
        CORPDIR_GUARDED_BY(mutex);  // runs whose threads are not all joined

    // The layer has threads; and a fork left this process without them. Read before any lock is
    // taken: in the child of a fork another thread, which does not exist there, may hold the lock.
    std::atomic<bool> hasThreads{false};
    std::atomic<bool> forked{false};
    std::atomic<bool> idleChild{false};  // a forked child that has not started the layer

    static ProcessState& Get();
    static void StartOnce();
    static void AtExit(Clock::time_point deadline);
    static void OnFork();

    bool Install(const std::shared_ptr<Layer>& layer) CORPDIR_EXCLUDES(mutex);
    std::shared_ptr<Layer> Retire() CORPDIR_EXCLUDES(mutex);
    std::shared_ptr<Layer> FirstStopped(bool onlyIfEnded) CORPDIR_EXCLUDES(mutex);
    void Forget(const std::shared_ptr<Layer>& layer) CORPDIR_EXCLUDES(mutex);
    void JoinStopped(bool onlyIfEnded) CORPDIR_EXCLUDES(mutex);
};

ProcessState& ProcessState::Get()
{
    static ProcessState* const s_state = new ProcessState;
    return *s_state;
}

// OpenSSL's exit handler is registered first, so our stage runs before it. ATFORK loads nothing
// else of OpenSSL.
void ProcessState::StartOnce()
{
    static const bool s_started =
        OPENSSL_init_crypto(OPENSSL_INIT_ATFORK, nullptr) == 1 &&
        base::ProcessEnd::Register<base::EndStage::kTransfers>(AtExit, OnFork);
    if (!s_started)
    {
        throw std::bad_alloc();
    }
}

// False when another thread was faster, or the process is ending. Throws std::bad_alloc.
bool ProcessState::Install(const std::shared_ptr<Layer>& layer)
{
    const base::MutexLock lock(mutex);
    if (base::ProcessEnd::HasBegun(base::EndStage::kTransfers) || running != nullptr)
    {
        return false;
    }
    stopped.reserve(stopped.size() + 1);  // Retire() needs no memory
    running = layer;
    hasThreads = true;
    idleChild = false;
    return true;
}

// Takes the running layer out of service, without waiting; null if there is none.
std::shared_ptr<Layer> ProcessState::Retire()
{
    const base::MutexLock lock(mutex);
    std::shared_ptr<Layer> layer = std::move(running);
    if (layer != nullptr)
    {
        stopped.push_back(layer);
    }
    return layer;
}

std::shared_ptr<Layer> ProcessState::FirstStopped(bool onlyIfEnded)
{
    const base::MutexLock lock(mutex);
    const auto found = std::find_if(stopped.begin(), stopped.end(),
                                    [onlyIfEnded](const auto& layer)
                                    { return !onlyIfEnded || layer->HasEnded(); });
    return found == stopped.end() ? nullptr : *found;
}

// Clears the flag when no thread is left: a child forked after that may use the layer.
void ProcessState::Forget(const std::shared_ptr<Layer>& layer)
{
    const base::MutexLock lock(mutex);
    stopped.erase(std::remove(stopped.begin(), stopped.end(), layer), stopped.end());
    hasThreads = running != nullptr || !stopped.empty();
}

// A run stays in the list until its threads are joined, so that every caller waits for them.
void ProcessState::JoinStopped(bool onlyIfEnded)
{
    while (const std::shared_ptr<Layer> layer = FirstStopped(onlyIfEnded))
    {
        layer->Join();
        Forget(layer);
    }
}

// From here on no notification begins. A notification in progress, and the current step of each
// transfer thread, are waited for until the deadline. Nothing is destroyed: a thread that is busy
// after it still finds all objects that it uses.
void ProcessState::AtExit(Clock::time_point deadline)
{
    ProcessState& state = Get();
    if (state.forked || state.idleChild)
    {
        return;
    }
    (void)state.Retire();
    static auto* const s_left = new std::vector<std::shared_ptr<Layer>>;
    {
        const base::MutexLock lock(state.mutex);
        s_left->swap(state.stopped);
    }
    for (const std::shared_ptr<Layer>& layer : *s_left)
    {
        layer->Stop();
        layer->RemoveTemporaryFiles();
    }
    for (const std::shared_ptr<Layer>& layer : *s_left)
    {
        layer->Join(deadline);
    }
}

void ProcessState::OnFork()
{
    ProcessState& state = Get();
    state.forked = state.forked || state.hasThreads;
    state.idleChild = true;
}

bool Layer::Forked()
{
    return ProcessState::Get().forked;
}

std::shared_ptr<Layer> Layer::Running()
{
    ProcessState& state = ProcessState::Get();
    const base::MutexLock lock(state.mutex);
    return state.running;
}

bool Layer::Init()
{
    ProcessState::StartOnce();
    ProcessState& state = ProcessState::Get();
    state.JoinStopped(true);
    if (Running() != nullptr)
    {
        return true;
    }
    const auto layer = std::make_shared<Layer>();
    try
    {
        layer->m_notifier.Start();
        if (state.Install(layer))
        {
            return true;
        }
    }
    catch (...)
    {
        layer->Join();  // a failed start is undone like a complete one
        throw;
    }
    layer->Join();
    // Another thread's start was faster and counts for this call too, even if its run has ended.
    return !base::ProcessEnd::HasBegun(base::EndStage::kTransfers);
}

void Layer::Uninit()
{
    ProcessState& state = ProcessState::Get();
    if (const std::shared_ptr<Layer> layer = state.Retire())
    {
        layer->Stop();
    }
    // A thread of the layer cannot wait for itself; its run is joined by a later call.
    if (!Worker::CallerIsOurs())
    {
        state.JoinStopped(false);
    }
}

// The notifier first: a transfer that ends from here on is not reported. A handle is always in
// m_handles or m_closed, so that every caller that joins finds it.
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

// Joins the threads of closed handles that have ended, so that they do not accumulate for a client
// that creates and closes many handles.
void Layer::JoinEndedThreads()
{
    for (const std::shared_ptr<Handle>& handle : ClosedHandles())
    {
        if (handle->Thread().HasEnded())
        {
            handle->Thread().Join();
            const base::MutexLock lock(m_mutex);
            m_closed.erase(std::remove(m_closed.begin(), m_closed.end(), handle), m_closed.end());
        }
    }
}

// Stops first: another caller may have retired this run and not stopped its handles yet.
void Layer::Join(Clock::time_point deadline)
{
    Stop();
    m_notifier.Thread().Join(deadline);
    for (const std::shared_ptr<Handle>& handle : ClosedHandles())
    {
        handle->Thread().Join(deadline);
    }
}

bool Layer::HasEnded()
{
    const base::MutexLock lock(m_mutex);
    return m_handles.empty() && m_notifier.Thread().HasEnded() &&
           std::all_of(m_closed.begin(), m_closed.end(),
                       [](const auto& handle) { return handle->Thread().HasEnded(); });
}

void Layer::RemoveTemporaryFiles()
{
    for (const std::shared_ptr<Handle>& handle : ClosedHandles())
    {
        handle->RemoveTemporaryFile();
    }
}

TRAVEX_FTP_HANDLE Layer::CreateHandle()
{
    const auto handle = base::NewHandle<TRAVEX_FTP_HANDLE>();
    JoinEndedThreads();
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
