#include "travex_ftp.h"

#include <climits>
#include <cstring>
#include <new>
#include <system_error>

#include "cipher_suites.h"
#include "curl_options.h"
#include "download_file.h"
#include "layer.h"
#include "log.h"
#include "observer.h"

namespace travex_ftp
{
namespace
{
// What the notification can give back byte for byte, terminator included.
constexpr size_t kLongestServerFile = sizeof(tagTRAVEX_FTP_S_NOTIFY_DATA::DownFileName) - 1;

// Runs the body of a public function: in the child of a fork it does not run at all, and lack of
// memory becomes a code.
template <typename Body>
unsigned int guarded(Body body)
{
    if (Layer::forked())
    {
        return TRAVEX_FTP_ERR_SYSTEM;
    }
    try
    {
        return body();
    }
    catch (...)
    {
        return TRAVEX_FTP_ERR_SYSTEM;
    }
}

// Logs a refusal and tells the observer, on the caller's thread. Returns its code.
unsigned int refused(const char* what, const Failure& failure, const char* server, const char* file)
{
    TRAVEX_FTP_LOG(CORPDIR_LOG_ERROR, "%s: %s refused: %s", server, what, failure.acReason);
    tagTRAVEX_FTP_S_OBSERVATION seen{};
    seen.ulKind = TRAVEX_FTP_OBSERVED_REFUSED;
    seen.pcServer = server;
    seen.pcServerFile = file;
    seen.ullTotal = TRAVEX_FTP_SIZE_UNKNOWN;
    seen.ulRet = failure.ulRet;
    seen.pcReason = failure.acReason;
    observe(seen);
    return failure.ulRet;
}

// Tells the observer, on the caller's thread.
void accepted(const Task& task)
{
    tagTRAVEX_FTP_S_OBSERVATION seen{};
    seen.ulKind = TRAVEX_FTP_OBSERVED_ACCEPTED;
    seen.ulTaskID = task.id.value();
    seen.pcServer = task.settings->serverText.c_str();
    seen.pcServerFile = task.serverFile.c_str();
    seen.ullTotal = TRAVEX_FTP_SIZE_UNKNOWN;
    seen.pcReason = "";
    observe(seen);
}

const char* handleReason(unsigned int code)
{
    return code == TRAVEX_FTP_ERR_NOT_INIT ? "the layer is not initialised"
                                           : "the handle is not open";
}

// The layer with this handle, null with the reason if there is none.
std::shared_ptr<Layer> layerOf(TRAVEX_FTP_HANDLE handle, Layer::View& view, Failure& failure)
{
    std::shared_ptr<Layer> layer = Layer::running();
    if (layer != nullptr && layer->look(handle, view))
    {
        return layer;
    }
    const unsigned int code = layer == nullptr ? TRAVEX_FTP_ERR_NOT_INIT : TRAVEX_FTP_ERR_HANDLE;
    (void)fail(failure, code, "%s", handleReason(code));
    return nullptr;
}

// Suites and trust anchors are looked up here, on the caller's thread and without a lock: a mistake
// in them is reported at once, and the transfer thread reads no files.
unsigned int setCtrlParam(TRAVEX_FTP_HANDLE handle, const tagTRAVEX_FTP_S_CTRL_PARAM& record)
{
    Failure failure{};
    Layer::View view;
    const std::shared_ptr<Layer> layer = layerOf(handle, view, failure);
    if (layer != nullptr)
    {
        const std::shared_ptr<const Settings> settings = readSettings(record, failure);
        if (settings != nullptr && layer->setSettings(handle, settings))
        {
            return TRAVEX_FTP_OK;
        }
        // Between the two looks another thread may have closed it.
        (void)fail(failure, TRAVEX_FTP_ERR_HANDLE, "%s", handleReason(TRAVEX_FTP_ERR_HANDLE));
    }
    return refused("control parameters", failure, serverOf(record).c_str(), "");
}

// The file becomes part of commands: what could end one, or hide in one, is refused.
bool checkServerFile(const char* serverFile, Failure& failure)
{
    if (serverFile == nullptr || *serverFile == '\0')
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "the server file is empty");
    }
    const size_t length = strnlen(serverFile, kLongestServerFile + 1);
    if (length > kLongestServerFile)
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "the server file is longer than %zu bytes",
                    kLongestServerFile);
    }
    if (hasControlByte(serverFile))
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "the server file holds a control byte");
    }
    // libcurl would list the directory instead.
    if (serverFile[length - 1] == '/')
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "the server file is a directory");
    }
    return true;
}

// A plain name cannot lead out of the directory.
bool checkLocalFile(const char* localFile, Failure& failure)
{
    if (localFile == nullptr || *localFile == '\0' || strnlen(localFile, NAME_MAX + 1) > NAME_MAX)
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "the local file is empty or too long");
    }
    if (strchr(localFile, '/') != nullptr || strcmp(localFile, ".") == 0 ||
        strcmp(localFile, "..") == 0)
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "the local file \"%s\" is not a plain name",
                    localFile);
    }
    // The next download into that directory would take it for an orphan.
    if (isTemporaryName(localFile))
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM,
                    "the local file \"%s\" has the name of a temporary file", localFile);
    }
    return true;
}

bool checkParameters(const Layer::View& view, Failure& failure)
{
    return (view.settings != nullptr && view.dataParam) ||
           fail(failure, TRAVEX_FTP_ERR_NOT_SET, "the %s parameters were not set",
                view.settings == nullptr ? "control" : "data");
}

// An absolute `dir` stands for itself.
std::string directoryOf(const std::string& workDir, const char* dir)
{
    if (dir == nullptr || *dir == '\0')
    {
        return workDir;
    }
    return *dir == '/' ? dir : workDir + "/" + dir;
}

// The parameters are taken as they stand: the task shares the settings, which never change.
unsigned int download(TRAVEX_FTP_HANDLE handle, unsigned int* taskId, const char* serverFile,
                      const char* dir, const char* localFile, TRAVEX_FTP_NOTIFY_CB callback)
{
    Failure failure{};
    Layer::View view;
    if (taskId == nullptr)
    {
        (void)fail(failure, TRAVEX_FTP_ERR_PARAM, "there is no place for the task id");
    }
    const std::shared_ptr<Layer> layer = layerOf(handle, view, failure);
    if (taskId == nullptr || layer == nullptr || !checkParameters(view, failure) ||
        !checkServerFile(serverFile, failure) || !checkLocalFile(localFile, failure))
    {
        const char* const server = view.settings ? view.settings->serverText.c_str() : "";
        return refused("download", failure, server, serverFile != nullptr ? serverFile : "");
    }
    const TaskPtr task(new Task{{},
                                view.handle,
                                view.settings,
                                serverFile,
                                directoryOf(view.settings->workDir, dir),
                                localFile,
                                callback,
                                {},
                                {},
                                {}});
    // Before anything can be told of the task.
    // The caller may read the id on the notification thread meanwhile, for another task of its own.
    __atomic_store_n(taskId, task->id.value(), __ATOMIC_RELEASE);
    accepted(*task);
    layer->submit(task);
    return TRAVEX_FTP_OK;
}

}  // namespace
}  // namespace travex_ftp

using namespace travex_ftp;

unsigned int TRAVEX_FTP_Init()
{
    return guarded([] { return Layer::init() ? TRAVEX_FTP_OK : TRAVEX_FTP_ERR_SYSTEM; });
}

unsigned int TRAVEX_FTP_UnInit()
{
    return guarded(
        []
        {
            Layer::uninit();
            return TRAVEX_FTP_OK;
        });
}

TRAVEX_FTP_HANDLE TRAVEX_FTP_CreateHandle()
{
    TRAVEX_FTP_HANDLE handle = nullptr;
    (void)guarded(
        [&handle]
        {
            const std::shared_ptr<Layer> layer = Layer::running();
            handle = layer != nullptr ? layer->createHandle() : nullptr;
            return TRAVEX_FTP_OK;
        });
    return handle;
}

unsigned int TRAVEX_FTP_CloseHandle(TRAVEX_FTP_HANDLE handle)
{
    return guarded(
        [handle]
        {
            const std::shared_ptr<Layer> layer = Layer::running();
            if (layer == nullptr)
            {
                return TRAVEX_FTP_ERR_NOT_INIT;
            }
            return layer->closeHandle(handle) ? TRAVEX_FTP_OK : TRAVEX_FTP_ERR_HANDLE;
        });
}

unsigned int TRAVEX_FTP_SetCtrlParam(TRAVEX_FTP_HANDLE handle,
                                     const tagTRAVEX_FTP_S_CTRL_PARAM* param)
{
    return guarded(
        [=]
        {
            return param != nullptr ? setCtrlParam(handle, *param)
                                    : static_cast<unsigned int>(TRAVEX_FTP_ERR_PARAM);
        });
}

unsigned int TRAVEX_FTP_SetDataParam(TRAVEX_FTP_HANDLE handle,
                                     const tagTRAVEX_FTP_S_DATA_PARAM* param)
{
    return guarded(
        [=]() -> unsigned int
        {
            const std::shared_ptr<Layer> layer = Layer::running();
            if (param == nullptr || layer == nullptr)
            {
                return param == nullptr ? TRAVEX_FTP_ERR_PARAM : TRAVEX_FTP_ERR_NOT_INIT;
            }
            return layer->setDataParam(handle) ? TRAVEX_FTP_OK : TRAVEX_FTP_ERR_HANDLE;
        });
}

unsigned int TRAVEX_FTP_AsynDownloadFile(TRAVEX_FTP_HANDLE handle, unsigned int* taskId,
                                         const char* serverFile, const char* dir,
                                         const char* localFile, TRAVEX_FTP_NOTIFY_CB callback)
{
    return guarded([=] { return download(handle, taskId, serverFile, dir, localFile, callback); });
}

unsigned int TRAVEX_FTP_ListCiphers(TRAVEX_FTP_CIPHER_CB callback, void* user)
{
    return guarded(
        [=]
        {
            const bool listed = callback == nullptr || listSuites(callback, user);
            return listed ? TRAVEX_FTP_OK : TRAVEX_FTP_ERR_SYSTEM;
        });
}

const char* TRAVEX_FTP_Libraries()
{
    return libraries();
}

void TRAVEX_FTP_SetObserver(TRAVEX_FTP_OBSERVER_CB observer, void* user)
{
    if (!Layer::forked())
    {
        setObserver(observer, user);
    }
}
