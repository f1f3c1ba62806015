#include "travex_ftp.h"

#include <openssl/crypto.h>
#include <sys/socket.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <new>
#include <system_error>

#include "base/resolved_names.h"
#include "cipher_suites.h"
#include "download_file.h"
#include "layer.h"
#include "log.h"
#include "observer.h"

namespace travex_ftp
{
namespace
{
// A longer name would not fit into the notification.
constexpr size_t kLongestServerFile = sizeof(tagTRAVEX_FTP_S_NOTIFY_DATA::DownFileName) - 1;

// Runs the body of a public function. An exception becomes a code; in the child of a fork the body
// does not run.
template <typename Body>
unsigned int Guarded(Body body)
{
    try
    {
        if (Layer::Forked())
        {
            return TRAVEX_FTP_ERR_SYSTEM;
        }
        return body();
    }
    catch (...)
    {
        return TRAVEX_FTP_ERR_SYSTEM;
    }
}

// Reports an accepted or refused download, or refused parameters, to the observer, on the caller's
// thread.
void ReportCall(unsigned int kind, unsigned int taskId, const char* server, const char* file,
                const Failure& failure)
{
    Observation seen{};
    seen.ulKind = kind;
    seen.ulTaskID = taskId;
    seen.pcServer = server;
    seen.pcServerFile = file;
    seen.ullTotal = TRAVEX_FTP_SIZE_UNKNOWN;
    seen.ulRet = failure.ulRet;
    seen.pcReason = failure.acReason;
    Observe(seen);
}

// Reports a refusal to the log and the observer. Returns its code.
unsigned int Refused(const char* what, const Failure& failure, const char* server, const char* file)
{
    TRAVEX_FTP_LOG(CORPDIR_LOG_ERROR, "%s: %s refused: %s", server, what, failure.acReason);
    ReportCall(TRAVEX_FTP_OBSERVED_REFUSED, 0, server, file, failure);
    return failure.ulRet;
}

// The handle; null, with the failure set, if there is none.
std::shared_ptr<Handle> FindHandle(const std::shared_ptr<Layer>& layer, TRAVEX_FTP_HANDLE number,
                                   Failure& failure)
{
    if (layer == nullptr)
    {
        (void)Fail(failure, TRAVEX_FTP_ERR_NOT_INIT, "the layer is not initialised");
        return nullptr;
    }
    std::shared_ptr<Handle> handle = layer->Find(number);
    if (handle == nullptr)
    {
        (void)Fail(failure, TRAVEX_FTP_ERR_HANDLE, "the handle is closed or unknown");
    }
    return handle;
}

// Cipher suites and trust anchors are read here, on the caller's thread and without a lock, so that
// a mistake is reported at once. OpenSSL may read files of the system's store later, in a
// handshake.
unsigned int SetCtrlParam(TRAVEX_FTP_HANDLE number, const tagTRAVEX_FTP_S_CTRL_PARAM& record,
                          const std::string& converted)
{
    Failure failure{};
    const std::shared_ptr<Layer> layer = Layer::Running();
    const std::shared_ptr<Handle> handle = FindHandle(layer, number, failure);
    if (handle != nullptr)
    {
        const Identity added = layer->Names().Find(AddressKeyOf(record));
        const std::shared_ptr<const Settings> settings =
            ReadSettings(record, added, converted, failure);
        if (settings != nullptr)
        {
            handle->SetSettings(settings);
            return TRAVEX_FTP_OK;
        }
    }
    return Refused("control parameters", failure, ServerOf(record).c_str(), "");
}

// The file becomes part of commands, so it may not contain control characters.
bool CheckServerFile(const char* serverFile, Failure& failure)
{
    if (serverFile == nullptr || *serverFile == '\0')
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "the server file name is empty");
    }
    const size_t length = strnlen(serverFile, kLongestServerFile + 1);
    if (length > kLongestServerFile)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "the server file name exceeds %zu bytes",
                    kLongestServerFile);
    }
    if (HasControlCharacter(serverFile))
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM,
                    "the server file name contains a control character");
    }
    // Some servers would send a directory listing.
    if (serverFile[length - 1] == '/')
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "the server file name ends in \"/\"");
    }
    return true;
}

// A plain name cannot refer to a file outside the directory.
bool CheckLocalFile(const char* localFile, Failure& failure)
{
    if (localFile == nullptr || *localFile == '\0' || strnlen(localFile, NAME_MAX + 1) > NAME_MAX)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "the local file name is empty or too long");
    }
    if (strchr(localFile, '/') != nullptr || strcmp(localFile, ".") == 0 ||
        strcmp(localFile, "..") == 0)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "the local file name \"%s\" is not a plain name",
                    localFile);
    }
    // The next download into the directory would remove it as an orphan.
    if (IsTemporaryName(localFile))
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM,
                    "the local file name \"%s\" is reserved for temporary files", localFile);
    }
    return true;
}

bool CheckParameters(const std::shared_ptr<const Settings>& settings, bool dataParam,
                     Failure& failure)
{
    return (settings != nullptr && dataParam) ||
           Fail(failure, TRAVEX_FTP_ERR_NOT_SET, "the %s parameters were not set",
                settings == nullptr ? "control" : "data");
}

// The local directory: `dir`, relative to the work directory unless absolute.
std::string DirectoryOf(const std::string& workDir, const char* dir)
{
    const std::string relative = dir == nullptr ? "" : dir;
    if (relative.empty() || relative == ".")
    {
        return workDir;
    }
    const char* const slash = workDir.back() == '/' ? "" : "/";
    return relative.front() == '/' ? relative : workDir + slash + relative;
}

// Never 0, and unique unless a task lives while four billion others are accepted.
unsigned int NextTaskId()
{
    static std::atomic<unsigned int> s_last{0};
    unsigned int id = ++s_last;
    while (id == 0)
    {
        id = ++s_last;
    }
    return id;
}

// The task shares the current settings, which never change.
unsigned int Download(TRAVEX_FTP_HANDLE number, unsigned int* taskId, const char* serverFile,
                      const char* dir, const char* localFile, TRAVEX_FTP_NOTIFY_CB callback)
{
    Failure failure{};
    if (taskId == nullptr)
    {
        (void)Fail(failure, TRAVEX_FTP_ERR_PARAM, "the task id pointer is null");
    }
    const std::shared_ptr<Handle> handle = FindHandle(Layer::Running(), number, failure);
    const std::shared_ptr<const Settings> settings =
        handle != nullptr ? handle->CurrentSettings() : nullptr;
    if (taskId == nullptr || handle == nullptr ||
        !CheckParameters(settings, handle->DataParamSet(), failure) ||
        !CheckServerFile(serverFile, failure) || !CheckLocalFile(localFile, failure))
    {
        const char* const server = settings ? settings->serverText.c_str() : "";
        return Refused("download", failure, server, serverFile != nullptr ? serverFile : "");
    }
    const TaskPtr task(new Task{NextTaskId(), handle, settings, serverFile,
                                DirectoryOf(settings->workDir, dir), localFile, callback});
    handle->StartThread();
    // Stored before anything can be reported of the task. Atomic, since the caller may read it on
    // the notification thread at the same time.
    __atomic_store_n(taskId, task->id, __ATOMIC_RELEASE);
    ReportCall(TRAVEX_FTP_OBSERVED_ACCEPTED, task->id, settings->serverText.c_str(), serverFile,
               failure);
    handle->Submit(task);
    return TRAVEX_FTP_OK;
}

unsigned int SetServerName(unsigned int ipType, const unsigned char* address, const char* name)
{
    const std::shared_ptr<Layer> layer = Layer::Running();
    if (layer == nullptr)
    {
        return TRAVEX_FTP_ERR_NOT_INIT;
    }
    if (address == nullptr)
    {
        layer->Names().ForgetAll();
        return TRAVEX_FTP_OK;
    }
    const std::string key = base::AddressKey(ipType == 1 ? AF_INET6 : AF_INET, address);
    std::string normalized;
    if (ipType > 1 || (name != nullptr && !NormalizeServerName(name, normalized)))
    {
        return TRAVEX_FTP_ERR_PARAM;
    }
    if (name == nullptr)
    {
        layer->Names().Forget(key);
        return TRAVEX_FTP_OK;
    }
    return layer->Names().Add(key, normalized) ? TRAVEX_FTP_OK : TRAVEX_FTP_ERR_SYSTEM;
}

}  // namespace
}  // namespace travex_ftp

using namespace travex_ftp;

unsigned int TRAVEX_FTP_Init()
{
    return Guarded([] { return Layer::Init() ? TRAVEX_FTP_OK : TRAVEX_FTP_ERR_SYSTEM; });
}

unsigned int TRAVEX_FTP_UnInit()
{
    return Guarded(
        []
        {
            Layer::Uninit();
            return TRAVEX_FTP_OK;
        });
}

TRAVEX_FTP_HANDLE TRAVEX_FTP_CreateHandle()
{
    TRAVEX_FTP_HANDLE handle = nullptr;
    (void)Guarded(
        [&handle]
        {
            const std::shared_ptr<Layer> layer = Layer::Running();
            handle = layer != nullptr ? layer->CreateHandle() : nullptr;
            return TRAVEX_FTP_OK;
        });
    return handle;
}

unsigned int TRAVEX_FTP_CloseHandle(TRAVEX_FTP_HANDLE handle)
{
    return Guarded(
        [handle]
        {
            const std::shared_ptr<Layer> layer = Layer::Running();
            if (layer == nullptr)
            {
                return TRAVEX_FTP_ERR_NOT_INIT;
            }
            return layer->CloseHandle(handle) ? TRAVEX_FTP_OK : TRAVEX_FTP_ERR_HANDLE;
        });
}

unsigned int TRAVEX_FTP_SetCtrlParam(TRAVEX_FTP_HANDLE handle,
                                     const tagTRAVEX_FTP_S_CTRL_PARAM* param)
{
    return Guarded(
        [=]
        {
            const std::string converted = TakeConvertedText(param);
            return param != nullptr ? SetCtrlParam(handle, *param, converted)
                                    : static_cast<unsigned int>(TRAVEX_FTP_ERR_PARAM);
        });
}

unsigned int TRAVEX_FTP_SetDataParam(TRAVEX_FTP_HANDLE handle,
                                     const tagTRAVEX_FTP_S_DATA_PARAM* param)
{
    return Guarded(
        [=]() -> unsigned int
        {
            if (param == nullptr)
            {
                return TRAVEX_FTP_ERR_PARAM;
            }
            Failure failure{};
            if (const auto found = FindHandle(Layer::Running(), handle, failure))
            {
                found->SetDataParam();
            }
            return failure.ulRet;
        });
}

unsigned int TRAVEX_FTP_AsynDownloadFile(TRAVEX_FTP_HANDLE handle, unsigned int* taskId,
                                         const char* serverFile, const char* dir,
                                         const char* localFile, TRAVEX_FTP_NOTIFY_CB callback)
{
    return Guarded([=] { return Download(handle, taskId, serverFile, dir, localFile, callback); });
}

unsigned int TRAVEX_FTP_ListCiphers(TRAVEX_FTP_CIPHER_CB callback, void* user)
{
    return Guarded(
        [=]
        {
            const bool listed = callback == nullptr || ListSuites(callback, user);
            return listed ? TRAVEX_FTP_OK : TRAVEX_FTP_ERR_SYSTEM;
        });
}

unsigned int TRAVEX_FTP_SetServerName(unsigned int ipType, const unsigned char* address,
                                      const char* name)
{
    return Guarded([=]() -> unsigned int { return SetServerName(ipType, address, name); });
}

unsigned int TRAVEX_FTP_SetLimits(const tagTRAVEX_FTP_S_LIMITS* limits)
{
    return Guarded(
        [limits]
        {
            SetLimits(limits);
            return TRAVEX_FTP_OK;
        });
}

const char* TRAVEX_FTP_Libraries()
{
    return OpenSSL_version(OPENSSL_VERSION);
}

void TRAVEX_FTP_SetObserver(TRAVEX_FTP_OBSERVER_CB observer, void* user)
{
    (void)Guarded(  // there is no code to return
        [&]
        {
            SetObserver(observer, user);
            return static_cast<unsigned int>(TRAVEX_FTP_OK);
        });
}
