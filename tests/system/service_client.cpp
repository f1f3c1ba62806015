#include "service_client.h"

#include "osak/sleep.h"

#include <string.h>

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <ostream>
#include <stdexcept>

namespace integration
{
namespace
{

// With long sleeps, a change that does not wake the worker fails a test and does not only delay it.
const bool kSleepsAreLong = (osak::SetLongestSleep(std::chrono::minutes(1)), true);

constexpr const char* kVersionName = "version.txt";
constexpr const char* kDirectoryName = "directory.csv";

// The callback has no argument for the client, so that the results are those of the process.
std::mutex g_mutex;
std::vector<Result> g_results;
std::function<void()> g_action;

void Record(unsigned int kind, unsigned int result, const char* text, void* reserved)
{
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        g_results.push_back({kind, result, text, reserved});
        action = g_action;
    }
    if (action)
    {
        action();
    }
}

void Fill(char (&field)[256], const std::string& text)
{
    if (text.size() >= sizeof field)
    {
        throw std::runtime_error("too long for the request: " + text);
    }
    memcpy(field, text.c_str(), text.size() + 1);
}

}  // namespace

const Result kFetched = {1, 0, nullptr, nullptr};
const Result kFailed = {1, 1, nullptr, nullptr};

void PrintTo(const Result& result, std::ostream* stream)
{
    *stream << "(" << result.kind << ", " << result.result << ", "
            << (result.text == nullptr ? "null" : result.text) << ", " << result.reserved << ")";
}

Request RequestTo(const support::FtpServer& server, const support::TestCertificates* certificates)
{
    Request request;
    request.servers = server.Host();
    request.port = static_cast<unsigned int>(server.Port());
    request.user = server.Options().user;
    request.password = server.Options().password;
    request.plain = server.Options().tls == support::Tls::kNone;
    if (certificates != nullptr)
    {
        request.trust = "ca=" + certificates->Authority();
    }
    if (server.Options().tls == support::Tls::kImplicit)
    {
        request.trust += ";tls=implicit";
    }
    return request;
}

std::string NameOfTls(const ::testing::TestParamInfo<support::Tls>& test)
{
    return test.param == support::Tls::kNone ? "Plain" : "Explicit";
}

Client::Client()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_results.clear();
    g_action = nullptr;
}

Client::~Client()
{
    Stop();
}

unsigned int Client::Start(unsigned int log_level)
{
    return StartWithLogIn(m_log.Path(), log_level);
}

unsigned int Client::StartWithLogIn(const std::string& directory, unsigned int log_level)
{
    tag_CORPDIR_LOGINFO log = {};
    Fill(log.szLogDir, directory);
    log.ulLogLevel = log_level;
    return GetCorpDirInstance()->CorpDirInit(&log);
}

void Client::Stop()
{
    GetCorpDirInstance()->CorpDirUninit();
}

unsigned int Client::Ask(const Request& request)
{
    return AskWith(request, [](tag_CORPDIR_DOWNLOADINFO&) {});
}

unsigned int Client::AskWith(const Request& request,
                             const std::function<void(tag_CORPDIR_DOWNLOADINFO&)>& change,
                             bool withCallback)
{
    tag_CORPDIR_DOWNLOADINFO record = {};
    Fill(record.szFtpCtrlInfo, request.trust);
    Fill(record.szUserName, request.user);
    Fill(record.szPassword, request.password);
    Fill(record.szVersionServerFile, request.version_file);
    Fill(record.szCorpDirServerFile, request.directory_file);
    Fill(record.szVersionLocalDir, m_output.Path());
    Fill(record.szVersionLocalFileName, kVersionName);
    Fill(record.szCorpDirLocalDir, m_output.Path());
    Fill(record.szCorpDirLocalFileName, kDirectoryName);
    record.pszFtpIPs = request.servers.c_str();
    record.ulPort = request.port;
    record.ulFtpMode = request.plain ? 1 : 0;
    record.ulCertVerify = request.verify ? 1 : 0;
    change(record);
    const unsigned int result =
        GetCorpDirInstance()->CorpDirDownloadNetaddr(&record, withCallback ? Record : nullptr);
    explicit_bzero(&record, sizeof record);
    return result;
}

unsigned int Client::AskWithoutRecord()
{
    return GetCorpDirInstance()->CorpDirDownloadNetaddr(nullptr, Record);
}

void Client::OnResult(std::function<void()> action)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_action = std::move(action);
}

void Client::ExpectResults(const Request& request, const std::vector<Result>& expected)
{
    ASSERT_EQ(Start(), 0u);
    ASSERT_EQ(Ask(request), 0u);
    ASSERT_TRUE(WaitForResults(expected.size()));
    Stop();
    EXPECT_EQ(Results(), expected);
}

std::vector<Result> Client::Results() const
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_results;
}

bool Client::WaitForResults(std::size_t count) const
{
    return support::WaitUntil([this, count] { return Results().size() >= count; },
                              std::chrono::seconds(30));
}

const std::string& Client::OutputDirectory() const
{
    return m_output.Path();
}

std::string Client::Version() const
{
    return support::ReadFile(m_output.File(kVersionName));
}

std::string Client::Directory() const
{
    return support::ReadFile(m_output.File(kDirectoryName));
}

void Client::PutDirectory(const std::string& bytes)
{
    support::WriteFile(m_output.File(kDirectoryName), bytes);
}

std::vector<std::string> Client::OutputFiles() const
{
    return support::FilesIn(m_output.Path());
}

bool Client::TransferIsUnderWay() const
{
    constexpr std::uintmax_t kMoreThanAVersion = 1024;
    for (const std::string& name : OutputFiles())
    {
        // It may be renamed or removed between the listing and this call.
        std::error_code gone;
        const auto size = std::filesystem::file_size(m_output.File(name), gone);
        if (name != kVersionName && name != kDirectoryName && !gone && size >= kMoreThanAVersion)
        {
            return true;
        }
    }
    return false;
}

std::string Client::Log() const
{
    return support::ReadFile(m_log.File("corpdir.log"));
}

}  // namespace integration
