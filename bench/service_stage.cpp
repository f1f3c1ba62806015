#include "service_stage.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "corpdir_log.h"
#include "osak.h"
#include "travex_ftp.h"

namespace
{

constexpr char kVersionFile[] = "version.txt";

std::mutex g_guard;
std::condition_variable g_asked;
std::uint32_t g_server = 0;  // of the next transfer
bench::Transfer g_transfer;
TRAVEX_FTP_NOTIFY_CB g_notify = nullptr;

OSAK_THREAD_PROC g_workerEntry = nullptr;  // of a worker that runs in RunWorker
bool g_keepsWorker = false;                // the next worker is to run there

thread_local const std::function<void()>* t_pass = nullptr;

[[noreturn]] void GiveUp(const char* why)
{
    std::fprintf(stderr, "service_bench: %s\n", why);
    std::exit(1);
}

void Notify(unsigned int type, unsigned int task)
{
    tagTRAVEX_FTP_S_ERR_INFO error = {};
    error.ulRet = TRAVEX_FTP_ERR_CONNECT;
    tagTRAVEX_FTP_S_NOTIFY_DATA data = {};
    data.ulTaskID = task;
    std::snprintf(data.DownFileName, sizeof data.DownFileName, "%s", kVersionFile);
    data.ulType = type;
    data.pstErrInfo = type == TRAVEX_FTP_NOTIFY_FAILED ? &error : nullptr;
    g_notify(nullptr, &data);
}

template <std::size_t SIZE>
void SetField(char (&field)[SIZE], const std::string& text)
{
    std::snprintf(field, SIZE, "%s", text.c_str());
}

}  // namespace

// --- In place of the real functions: the linker leads the calls here.

extern "C"
{
    int __real_OSAK_PollSleep(unsigned int microseconds);
    unsigned int __real_OSAK_PthreadCreate(OSAK_THREAD* thread, void* attr, OSAK_THREAD_PROC entry,
                                           void* arg);
    unsigned int __real_OSAK_PthreadJoin(OSAK_THREAD thread, void** result);

    int __wrap_OSAK_PollSleep(unsigned int microseconds)
    {
        if (t_pass == nullptr)
        {
            return __real_OSAK_PollSleep(microseconds);
        }
        (*t_pass)();
        return 0;
    }

    unsigned int __wrap_OSAK_PthreadCreate(OSAK_THREAD* thread, void* attr, OSAK_THREAD_PROC entry,
                                           void* arg)
    {
        if (!g_keepsWorker)
        {
            return __real_OSAK_PthreadCreate(thread, attr, entry, arg);
        }
        g_workerEntry = entry;
        *thread = reinterpret_cast<OSAK_THREAD>(&g_workerEntry);
        return OSAK_OK;
    }

    unsigned int __wrap_OSAK_PthreadJoin(OSAK_THREAD thread, void** result)
    {
        return thread == reinterpret_cast<OSAK_THREAD>(&g_workerEntry)
                   ? unsigned{OSAK_OK}
                   : __real_OSAK_PthreadJoin(thread, result);
    }
}

// --- The FTP layer.

extern "C"
{
    unsigned int TRAVEX_FTP_Init()
    {
        return TRAVEX_FTP_OK;
    }

    unsigned int TRAVEX_FTP_UnInit()
    {
        return TRAVEX_FTP_OK;
    }

    TRAVEX_FTP_HANDLE TRAVEX_FTP_CreateHandle()
    {
        return reinterpret_cast<TRAVEX_FTP_HANDLE>(&g_transfer);
    }

    unsigned int TRAVEX_FTP_CloseHandle(TRAVEX_FTP_HANDLE /*handle*/)
    {
        return TRAVEX_FTP_OK;
    }

    unsigned int TRAVEX_FTP_SetCtrlParam(TRAVEX_FTP_HANDLE /*handle*/,
                                         const tagTRAVEX_FTP_S_CTRL_PARAM* param)
    {
        std::uint32_t server = 0;
        std::memcpy(&server, param->aucServerIp, sizeof server);
        const std::lock_guard<std::mutex> lock(g_guard);
        g_server = ntohl(server);
        return TRAVEX_FTP_OK;
    }

    unsigned int TRAVEX_FTP_SetDataParam(TRAVEX_FTP_HANDLE /*handle*/,
                                         const tagTRAVEX_FTP_S_DATA_PARAM* /*param*/)
    {
        return TRAVEX_FTP_OK;
    }

    unsigned int TRAVEX_FTP_AsynDownloadFile(TRAVEX_FTP_HANDLE /*handle*/, unsigned int* taskId,
                                             const char* /*serverFile*/, const char* /*dir*/,
                                             const char* /*localFile*/,
                                             TRAVEX_FTP_NOTIFY_CB callback)
    {
        const bench::Clock::time_point now = bench::Clock::now();
        const std::lock_guard<std::mutex> lock(g_guard);
        g_transfer = {g_transfer.number + 1, g_server, now, bench::AllocationsSoFar()};
        *taskId = g_transfer.number;
        g_notify = callback;
        g_asked.notify_one();
        return TRAVEX_FTP_OK;
    }
}

namespace bench
{

Transfer LatestTransfer()
{
    const std::lock_guard<std::mutex> lock(g_guard);
    return g_transfer;
}

Transfer TransferAfter(unsigned int number)
{
    std::unique_lock<std::mutex> lock(g_guard);
    g_asked.wait(lock, [&] { return g_transfer.number != number; });
    return g_transfer;
}

void FailVersionFile(unsigned int task)
{
    Notify(TRAVEX_FTP_NOTIFY_FAILED, task);
}

void CompleteVersionFile(unsigned int task)
{
    Notify(TRAVEX_FTP_NOTIFY_SUCCESS, task);
    Notify(TRAVEX_FTP_NOTIFY_OVER, task);
}

void RunWithoutSleep(const std::function<void()>& loop, const std::function<void()>& pass)
{
    t_pass = &pass;
    loop();
    t_pass = nullptr;
}

Stage::Stage(LogSetting log, WorkerThread worker)
{
    std::string name = (std::filesystem::temp_directory_path() / "service_bench.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
    {
        GiveUp("no directory");
    }
    m_directory = name;
    g_keepsWorker = worker == WorkerThread::kOurs;
    tag_CORPDIR_LOGINFO info = {};
    SetField(info.szLogDir, name);
    info.ulLogLevel = log == LogSetting::kInfo ? CORPDIR_LOG_INFO : CORPDIR_LOG_ERROR;
    g_LogMode = log == LogSetting::kOff ? 1 : 0;
    if (GetCorpDirInstance()->CorpDirInit(&info) != 0)
    {
        GiveUp("the service does not start");
    }
    m_isStarted = true;
}

Stage::~Stage()
{
    Stop();
    g_LogMode = 0;
    std::filesystem::remove_all(m_directory);
}

void Stage::RunWorker(const std::function<void()>& pass)
{
    RunWithoutSleep([] { (void)g_workerEntry(); }, pass);
}

void Stage::Stop()
{
    if (m_isStarted)
    {
        GetCorpDirInstance()->CorpDirUninit();
        m_isStarted = false;
    }
}

void Stage::Request(const std::string& servers)
{
    tag_CORPDIR_DOWNLOADINFO info = {};
    SetField(info.szFtpCtrlInfo, "system");
    SetField(info.szUserName, "alice");
    SetField(info.szPassword, "throw-away-17");
    SetField(info.szVersionServerFile, kVersionFile);
    SetField(info.szCorpDirServerFile, "directory.csv");
    SetField(info.szVersionLocalDir, m_directory);
    SetField(info.szVersionLocalFileName, VersionFile().filename());
    SetField(info.szCorpDirLocalDir, m_directory);
    SetField(info.szCorpDirLocalFileName, "directory.csv");
    info.pszFtpIPs = servers.c_str();
    const auto client = [](unsigned int, unsigned int, const char*, void*) {};
    if (GetCorpDirInstance()->CorpDirDownloadNetaddr(&info, client) != 0)
    {
        GiveUp("the service refuses the request");
    }
}

std::filesystem::path Stage::VersionFile() const
{
    return m_directory / "version.local";
}

}  // namespace bench
