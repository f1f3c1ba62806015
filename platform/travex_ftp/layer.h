// One run of the layer, from TRAVEX_FTP_Init to TRAVEX_FTP_UnInit.
#ifndef TRAVEX_FTP_LAYER_H
#define TRAVEX_FTP_LAYER_H

#include <memory>
#include <unordered_map>

#include "common/guard.h"
#include "limits.h"
#include "notifier.h"
#include "task.h"
#include "transfer_thread.h"

namespace travex_ftp
{
// Thread-safe. The handles are under one lock, the two threads look after themselves.
class Layer
{
public:
    // The running layer, null if there is none.
    static std::shared_ptr<Layer> running();

    // The process is a fork of the one that runs the layer; asked before anything else.
    static bool forked();

    // What TRAVEX_FTP_Init and TRAVEX_FTP_UnInit do. init() is false when the process is ending,
    // and throws when resources run out.
    static bool init();
    static void uninit();

    Layer();
    ~Layer() = default;
    Layer(const Layer&) = delete;
    Layer& operator=(const Layer&) = delete;

    // Never null. Throws std::bad_alloc.
    TRAVEX_FTP_HANDLE createHandle() CORPDIR_EXCLUDES(guard_);

    // False, or null: no such handle.
    bool closeHandle(TRAVEX_FTP_HANDLE handle) CORPDIR_EXCLUDES(guard_);
    bool setSettings(TRAVEX_FTP_HANDLE handle, std::shared_ptr<const Settings> settings)
        CORPDIR_EXCLUDES(guard_);
    bool setDataParam(TRAVEX_FTP_HANDLE handle) CORPDIR_EXCLUDES(guard_);

    // A handle's state as it stands at a moment.
    struct View
    {
        std::shared_ptr<Handle> handle;
        std::shared_ptr<const Settings> settings;
        bool dataParam = false;
    };
    bool look(TRAVEX_FTP_HANDLE handle, View& view) CORPDIR_EXCLUDES(guard_);

    void submit(TaskPtr task)
    {
        transfers_.submit(std::move(task));
    }

private:
    friend struct World;

    void start();
    void stop();
    bool join(Clock::time_point deadline);
    bool over();

    std::shared_ptr<Handle> find(TRAVEX_FTP_HANDLE handle) CORPDIR_REQUIRES(guard_);

    // Link of the runs that have ended but whose threads are not joined yet; under World's lock.
    std::shared_ptr<Layer> nextEnded_;

    Notifier notifier_;
    TransferThread transfers_;

    common::Guard guard_;
    std::unordered_map<TRAVEX_FTP_HANDLE, std::shared_ptr<Handle>> handles_
        CORPDIR_GUARDED_BY(guard_);
};

}  // namespace travex_ftp

#endif
