#include "travex_ftp_fixture.h"

#include <arpa/inet.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
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

std::string Described(const Notice& failure)
{
    std::ostringstream text;
    text << failure.type << " " << failure.code << "/" << StepName(failure.step) << "/"
         << failure.reply;
    if (failure.detail != TRAVEX_FTP_DETAIL_NONE)
    {
        text << "/" << failure.detail;
    }
    text << " " << failure.reason;
    return text.str();
}

}  // namespace

const char* StepName(unsigned int step)
{
    static const char* const kSteps[] = {"NONE",     "LOCAL_FILE", "CONNECT",      "GREETING",
                                         "AUTH",     "TLS",        "LOGIN",        "PROTECT",
                                         "TYPE",     "PASSIVE",    "DATA_CONNECT", "SIZE",
                                         "RETRIEVE", "DATA_TLS",   "RECEIVE",      "CONFIRM"};
    return step < std::size(kSteps) ? kSteps[step] : "?";
}

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
        notice.step = data->pstErrInfo->ulStep;
        notice.reply = data->pstErrInfo->ulReply;
        notice.detail = data->pstErrInfo->ulDetail;
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
    std::string outcome;
    for (const Notice& notice : WaitForEnd(task))
    {
        outcome += outcome.empty() ? "" : " ";
        outcome += notice.type == TRAVEX_FTP_NOTIFY_FAILED ? Described(notice)
                                                           : std::to_string(notice.type);
    }
    return outcome;
}

Limits::Limits(const std::function<void(tagTRAVEX_FTP_S_LIMITS&)>& set)
{
    tagTRAVEX_FTP_S_LIMITS limits{};
    set(limits);
    EXPECT_EQ(0u, TRAVEX_FTP_SetLimits(&limits));
}

Limits::~Limits()
{
    EXPECT_EQ(0u, TRAVEX_FTP_SetLimits(nullptr));
}

Environment::Environment(const char* name, const std::string& value) : m_name(name)
{
    setenv(name, value.c_str(), 1);
}

Environment::~Environment()
{
    unsetenv(m_name);
}

size_t CountThreads()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
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
    return Lines(line).size();
}

std::vector<std::string> FaultyServer::Lines(const std::string& begin) const
{
    std::istringstream log(Log());
    std::vector<std::string> lines;
    for (std::string each; std::getline(log, each);)
    {
        if (each.compare(0, begin.size(), begin) == 0)
        {
            lines.push_back(each.substr(begin.size()));
        }
    }
    return lines;
}

std::vector<std::string> FaultyServer::Commands() const
{
    return Lines("COMMAND ");
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

std::vector<std::string> OptionsFor(bool tls)
{
    return tls ? TlsOptions() : std::vector<std::string>();
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

TRAVEX_FTP_HANDLE HandleWith(const tagTRAVEX_FTP_S_CTRL_PARAM& parameters)
{
    const TRAVEX_FTP_HANDLE handle = TRAVEX_FTP_CreateHandle();
    EXPECT_NE(nullptr, handle);
    const tagTRAVEX_FTP_S_DATA_PARAM data{};
    EXPECT_EQ(0u, TRAVEX_FTP_SetDataParam(handle, &data));
    EXPECT_EQ(0u, TRAVEX_FTP_SetCtrlParam(handle, &parameters));
    return handle;
}

unsigned int StartOn(TRAVEX_FTP_HANDLE handle, const std::string& serverFile,
                     const std::string& localFile)
{
    unsigned int task = 0;
    EXPECT_EQ(0u, TRAVEX_FTP_AsynDownloadFile(handle, &task, serverFile.c_str(), ".",
                                              localFile.c_str(), Record));
    EXPECT_NE(0u, task);
    return task;
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
    EXPECT_EQ(0u, TRAVEX_FTP_SetLimits(nullptr));
    ClearNotices();
    for (const std::string& name : support::FilesIn(m_directory.Path()))
    {
        EXPECT_NE(0u, name.find(".travex_ftp-")) << "left behind: " << name;
    }
}

tagTRAVEX_FTP_S_CTRL_PARAM LayerTest::RecordFor(const FaultyServer& server, bool tls) const
{
    auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
    record.ulServerType = record.ulCertVerify = tls ? 1 : 0;
    record.pcFtpCtrlInfo = Certificates().Authority().c_str();
    return record;
}

void LayerTest::Use(const tagTRAVEX_FTP_S_CTRL_PARAM& parameters)
{
    ASSERT_EQ(0u, TRAVEX_FTP_SetCtrlParam(m_handle, &parameters));
}

unsigned int LayerTest::Start(const std::string& serverFile, const std::string& localFile)
{
    return StartOn(m_handle, serverFile, localFile);
}

std::string LayerTest::Fetch(const std::string& serverFile, const std::string& localFile)
{
    return OutcomeOf(Start(serverFile, localFile));
}

std::string LayerTest::Content(const std::string& localFile) const
{
    return support::ReadFile(m_directory.File(localFile));
}

}  // namespace ftp_test
