#include "travex_ftp_fixture.h"

#include <arpa/inet.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sstream>
#include <stdexcept>

namespace ftp_test
{
namespace
{
std::mutex g_mutex;
std::condition_variable g_changed;
std::vector<Notice> g_notices;
std::function<void(const Notice&)> g_hook;

// The notices of one task; called with the lock held.
std::vector<Notice> NoticesOf(unsigned int task)
{
    std::vector<Notice> found;
    for (const Notice& notice : g_notices)
    {
        if (notice.task == task)
        {
            found.push_back(notice);
        }
    }
    return found;
}

bool Ended(const std::vector<Notice>& notices)
{
    return !notices.empty() && notices.back().type != TRAVEX_FTP_NOTIFY_SUCCESS;
}

std::vector<Notice> WaitForEnd(unsigned int task)
{
    std::unique_lock<std::mutex> lock(g_mutex);
    g_changed.wait_for(lock, std::chrono::seconds(40), [&] { return Ended(NoticesOf(task)); });
    return NoticesOf(task);
}

}  // namespace

std::vector<Notice> Notices()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_notices;
}

void ClearNotices()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_notices.clear();
    g_hook = nullptr;
}

void SetHook(std::function<void(const Notice&)> hook)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_hook = std::move(hook);
}

void Record(void* user, tagTRAVEX_FTP_S_NOTIFY_DATA* data)
{
    EXPECT_EQ(nullptr, user);
    Notice notice;
    notice.type = data->ulType;
    notice.task = data->ulTaskID;
    notice.file = data->DownFileName;
    notice.thread = std::this_thread::get_id();
    if (data->pstErrInfo != nullptr)
    {
        notice.code = data->pstErrInfo->ulRet;
        notice.reason = data->pstErrInfo->acReason;
    }
    EXPECT_EQ(data->ulType == TRAVEX_FTP_NOTIFY_FAILED, data->pstErrInfo != nullptr);
    std::function<void(const Notice&)> hook;
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        g_notices.push_back(notice);
        hook = g_hook;
        g_changed.notify_all();
    }
    if (hook)
    {
        hook(notice);
    }
}

std::string OutcomeOf(unsigned int task)
{
    std::string types;
    for (const Notice& notice : WaitForEnd(task))
    {
        types += (types.empty() ? "" : " ") + std::to_string(notice.type);
    }
    return types;
}

Notice FailureOf(unsigned int task)
{
    const std::vector<Notice> notices = WaitForEnd(task);
    return notices.empty() ? Notice() : notices.back();
}

Environment::Environment(const char* name, const std::string& value) : m_name(name)
{
    setenv(name, value.c_str(), 1);
}

Environment::~Environment()
{
    unsetenv(m_name);
}

FaultyServer::FaultyServer(const std::string& fault, std::vector<std::string> options)
{
    support::Command command;
    command.output_file = m_directory.File("output");
    command.arguments = {
        "/usr/bin/python3",     CORPDIR_FAULTY_FTP_SERVER, "--fault", fault, "--log",
        m_directory.File("log")};
    command.arguments.insert(command.arguments.end(), options.begin(), options.end());
    m_process = std::make_unique<support::Process>(command);
    const bool ready = support::WaitUntil(
        [this, &command]
        {
            return m_process->Poll().has_value() ||
                   (support::FileExists(command.output_file) &&
                    sscanf(support::ReadFile(command.output_file).c_str(), "READY %u\n", &m_port) ==
                        1);
        });
    if (!ready || m_port == 0)
    {
        throw std::runtime_error("server: " + support::ReadFile(command.output_file));
    }
}

unsigned int FaultyServer::Port() const
{
    return m_port;
}

std::string FaultyServer::Log() const
{
    const std::string file = m_directory.File("log");
    return support::FileExists(file) ? support::ReadFile(file) : "";
}

size_t FaultyServer::Count(const std::string& line) const
{
    std::istringstream log(Log());
    size_t count = 0;
    for (std::string each; std::getline(log, each);)
    {
        count += each.compare(0, line.size(), line) == 0 ? 1 : 0;
    }
    return count;
}

std::vector<std::string> FaultyServer::Commands() const
{
    const std::string begin = "COMMAND ";
    std::istringstream log(Log());
    std::vector<std::string> commands;
    for (std::string each; std::getline(log, each);)
    {
        if (each.compare(0, begin.size(), begin) == 0)
        {
            commands.push_back(each.substr(begin.size()));
        }
    }
    return commands;
}

std::string FaultyServer::Body(size_t size)
{
    std::string body;
    for (size_t i = 0; i != size; ++i)
    {
        const size_t at = i % 65536;
        body += static_cast<char>((at * 7 + at / 251) & 0xff);
    }
    return body;
}

const support::TestCertificates& Certificates()
{
    static const support::TestCertificates certificates;
    return certificates;
}

std::vector<std::string> TlsOptions(const std::string& kind)
{
    const support::ServerCertificate certificate = Certificates().Good();
    return {"--tls", kind, "--cert", certificate.certificate_file, "--key", certificate.key_file};
}

tagTRAVEX_FTP_S_CTRL_PARAM Parameters(const std::string& host, unsigned int port,
                                      const std::string& directory)
{
    tagTRAVEX_FTP_S_CTRL_PARAM record{};
    record.ulServerIpType = host.find(':') != std::string::npos ? 1 : 0;
    EXPECT_EQ(1, inet_pton(record.ulServerIpType == 1 ? AF_INET6 : AF_INET, host.c_str(),
                           record.aucServerIp));
    record.ulServerPort = port;
    strcpy(record.acUserName, "ftp");
    strcpy(record.acPassword, "throw-away-17");
    EXPECT_LT(directory.size(), sizeof record.acWorkDir);
    strcpy(record.acWorkDir, directory.c_str());
    return record;
}

tagTRAVEX_FTP_S_CTRL_PARAM ParametersOf(const support::FtpServer& server,
                                        const std::string& directory)
{
    auto record = Parameters(server.Host(), static_cast<unsigned int>(server.Port()), directory);
    record.ulServerType = server.Options().tls == support::Tls::kNone ? 0 : 1;
    record.pcFtpCtrlInfo = server.Options().tls == support::Tls::kImplicit ? "tls=implicit" : "";
    return record;
}

void LayerTest::SetUp()
{
    ClearNotices();
    ASSERT_EQ(0u, TRAVEX_FTP_Init());
    m_handle = TRAVEX_FTP_CreateHandle();
    ASSERT_NE(nullptr, m_handle);
    const tagTRAVEX_FTP_S_DATA_PARAM data{};
    ASSERT_EQ(0u, TRAVEX_FTP_SetDataParam(m_handle, &data));
}

void LayerTest::TearDown()
{
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    TRAVEX_FTP_SetObserver(nullptr, nullptr);
    ClearNotices();
    for (const std::string& name : support::FilesIn(m_directory.Path()))
    {
        EXPECT_NE(0u, name.find(".travex_ftp-")) << "left behind: " << name;
    }
}

void LayerTest::Use(const tagTRAVEX_FTP_S_CTRL_PARAM& parameters)
{
    ASSERT_EQ(0u, TRAVEX_FTP_SetCtrlParam(m_handle, &parameters));
}

unsigned int LayerTest::Start(const std::string& server_file, const std::string& local_file)
{
    unsigned int task = 0;
    EXPECT_EQ(0u, TRAVEX_FTP_AsynDownloadFile(m_handle, &task, server_file.c_str(), ".",
                                              local_file.c_str(), Record));
    EXPECT_NE(0u, task);
    return task;
}

std::string LayerTest::Fetch(const std::string& server_file, const std::string& local_file)
{
    const unsigned int task = Start(server_file, local_file);
    const std::string outcome = OutcomeOf(task);
    if (outcome != "3")
    {
        return outcome;
    }
    const Notice failure = FailureOf(task);
    const size_t colon = failure.reason.find(": ");
    return "3 " + std::to_string(failure.code) + " " +
           (colon == std::string::npos ? failure.reason : failure.reason.substr(colon + 2));
}

std::string LayerTest::Content(const std::string& local_file) const
{
    return support::ReadFile(m_directory.File(local_file));
}

}  // namespace ftp_test
