// A client of the service, for tests: it uses the client header alone.
#ifndef CORPDIR_TESTS_SERVICE_CLIENT_H
#define CORPDIR_TESTS_SERVICE_CLIENT_H

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "ftp_servers.h"
#include "ftpcorpdir.h"

namespace integration
{

// One call of the client's callback.
struct Result
{
    unsigned int kind;
    unsigned int result;
    const char* text;
    void* reserved;
};

inline bool operator==(const Result& left, const Result& right)
{
    return left.kind == right.kind && left.result == right.result && left.text == right.text &&
           left.reserved == right.reserved;
}

extern const Result kFetched;
extern const Result kFailed;

// How GoogleTest shows one.
void PrintTo(const Result& result, std::ostream* stream);

// The values of a request.
struct Request
{
    std::string servers;
    unsigned int port = 0;
    std::string user;
    std::string password;
    std::string trust = "system";
    bool plain = false;
    bool verify = true;
    std::string version_file = "version.txt";
    std::string directory_file = "directory.csv";
};

// The request that fits a server.
Request RequestTo(const support::FtpServer& server,
                  const support::TestCertificates* certificates = nullptr);

// For tests with the parameter Tls::kNone or Tls::kExplicit.
std::string NameOfTls(const ::testing::TestParamInfo<support::Tls>& test);

// The client with its output directory and its log. The service is started on demand and stopped at
// the end. One at a time, since the service is one; use it on one thread.
class Client
{
public:
    Client();
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    unsigned int Start(unsigned int log_level = 2);
    unsigned int StartWithLogIn(const std::string& directory, unsigned int log_level = 2);
    void Stop();
    unsigned int Ask(const Request& request);
    // With a record that `change` has modified, and without a callback unless `withCallback`. The
    // record is wiped.
    unsigned int AskWith(const Request& request,
                         const std::function<void(tag_CORPDIR_DOWNLOADINFO&)>& change,
                         bool withCallback = true);
    unsigned int AskWithoutRecord();

    // Runs on the notification thread after the result was recorded.
    void OnResult(std::function<void()> action);

    // From a start to a stop, which follows as many results as are expected. The results since the
    // client was made must be these.
    void ExpectResults(const Request& request, const std::vector<Result>& expected);

    std::vector<Result> Results() const;
    bool WaitForResults(std::size_t count) const;  // false when they do not come in time

    const std::string& OutputDirectory() const;
    std::string Version() const;                   // bytes of the version file
    std::string Directory() const;                 // bytes of the directory file
    void PutDirectory(const std::string& bytes);   // as if fetched earlier
    std::vector<std::string> OutputFiles() const;  // names in the output directory
    bool TransferIsUnderWay() const;               // of the directory file, by its temporary one

    std::string Log() const;

private:
    support::TemporaryDirectory m_output;
    support::TemporaryDirectory m_log;
};

}  // namespace integration

#endif
