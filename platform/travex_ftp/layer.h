// One run of the layer, from TRAVEX_FTP_Init to TRAVEX_FTP_UnInit.
#ifndef TRAVEX_FTP_LAYER_H
#define TRAVEX_FTP_LAYER_H

#include <memory>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "handle.h"
#include "identity.h"
#include "limits.h"
#include "notifier.h"

namespace travex_ftp
{
// Thread-safe: the handles are under one lock, each thread under its own.
class Layer
{
public:
    // The running layer, null if there is none.
    static std::shared_ptr<Layer> Running();

    // This process is a child of a fork of one that had the layer's threads. Check it before any
    // lock is taken.
    static bool Forked();

    // TRAVEX_FTP_Init and TRAVEX_FTP_UnInit. Init() is false when the process is ending,
    // and throws when resources run out.
    static bool Init();
    static void Uninit();

    Layer() = default;
    ~Layer() = default;
    Layer(const Layer&) = delete;
    Layer& operator=(const Layer&) = delete;

    // Never null. Throws std::bad_alloc or std::system_error.
    TRAVEX_FTP_HANDLE CreateHandle() CORPDIR_EXCLUDES(m_mutex);

    // False, or null: no such handle.
    bool CloseHandle(TRAVEX_FTP_HANDLE handle) CORPDIR_EXCLUDES(m_mutex);
    std::shared_ptr<Handle> Find(TRAVEX_FTP_HANDLE handle) CORPDIR_EXCLUDES(m_mutex);

    ServerNames& Names()
    {
        return m_names;
    }

private:
    friend struct ProcessState;

    void Stop() CORPDIR_EXCLUDES(m_mutex);
    void Close(const std::shared_ptr<Handle>& handle) CORPDIR_REQUIRES(m_mutex);
    void JoinEndedThreads() CORPDIR_EXCLUDES(m_mutex);
    void Join(Clock::time_point deadline = Clock::time_point::max()) CORPDIR_EXCLUDES(m_mutex);
    bool HasEnded() CORPDIR_EXCLUDES(m_mutex);
    void RemoveTemporaryFiles() CORPDIR_EXCLUDES(m_mutex);
    std::vector<std::shared_ptr<Handle>> ClosedHandles() CORPDIR_EXCLUDES(m_mutex);

    Notifier m_notifier;
    ServerNames m_names;

    base::Mutex m_mutex;
    std::unordered_map<TRAVEX_FTP_HANDLE, std::shared_ptr<Handle>> m_handles
        CORPDIR_GUARDED_BY(m_mutex);
    std::vector<std::shared_ptr<Handle>> m_closed
        CORPDIR_GUARDED_BY(m_mutex);  // their threads may not have ended
};

}  // namespace travex_ftp

#endif
