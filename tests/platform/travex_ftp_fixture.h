// What the tests of the FTP layer share: a client with its notifications, and a server that
// misbehaves on purpose.
#ifndef TRAVEX_FTP_FIXTURE_H
#define TRAVEX_FTP_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "certificates.h"
#include "files.h"
#include "ftp_servers.h"
#include "process.h"
#include "travex_ftp.h"

namespace ftp_test
{
// A notification as it arrived.
struct Notice
{
    unsigned int type = 0;
    unsigned int task = 0;
    std::string file;
    unsigned int code = 0;
    std::string reason;
    std::thread::id thread;
};

// All notifications since the last Clear, in order. Thread-safe.
std::vector<Notice> Notices();
void ClearNotices();

// Called in every notification after it was recorded; none: nothing.
void SetHook(std::function<void(const Notice&)> hook);

// The callback that records.
void Record(void* user, tagTRAVEX_FTP_S_NOTIFY_DATA* data);

// How a task ended: "0 12" or "3"; waits for it. Empty when it did not end in time.
std::string OutcomeOf(unsigned int task);
Notice FailureOf(unsigned int task);

// Sets an environment variable for the life of the object.
class Environment
{
public:
    Environment(const char* name, const std::string& value);
    ~Environment();
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

private:
    const char* m_name;
};

// Server process of tests/support/faulty_ftp_server.py.
class FaultyServer
{
public:
    explicit FaultyServer(const std::string& fault, std::vector<std::string> options = {});

    unsigned int Port() const;
    std::string Log() const;
    size_t Count(const std::string& line) const;  // lines of the log that begin so
    std::vector<std::string> Commands() const;

    static std::string Body(size_t size);  // what it serves under every name

private:
    support::TemporaryDirectory m_directory;
    std::unique_ptr<support::Process> m_process;
    unsigned int m_port = 0;
};

// Certificates of the test program, and the options for a server of it with TLS.
const support::TestCertificates& Certificates();
std::vector<std::string> TlsOptions(const std::string& kind = "explicit");

// Control parameters for 127.0.0.1 or ::1 and a work directory.
tagTRAVEX_FTP_S_CTRL_PARAM Parameters(const std::string& host, unsigned int port,
                                      const std::string& directory);

// Parameters of a server of the support library. The trust text must outlive the record.
tagTRAVEX_FTP_S_CTRL_PARAM ParametersOf(const support::FtpServer& server,
                                        const std::string& directory);

// An initialised layer, a handle and a directory to download into.
class LayerTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Sets the parameters; a failure fails the test.
    void Use(const tagTRAVEX_FTP_S_CTRL_PARAM& parameters);

    // Starts a download into the directory; 0 when it was refused.
    unsigned int Start(const std::string& server_file, const std::string& local_file);

    // One whole download: its outcome, "0 12", or "3 <code> <reason>" without the server's name.
    std::string Fetch(const std::string& server_file, const std::string& local_file);

    std::string Content(const std::string& local_file) const;

    support::TemporaryDirectory m_directory;
    TRAVEX_FTP_HANDLE m_handle = nullptr;
};

}  // namespace ftp_test

#endif
