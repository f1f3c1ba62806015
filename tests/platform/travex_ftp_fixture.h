// Shared by the tests of the FTP layer: a client that records notifications, and a faulty server.
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
// A recorded notification.
struct Notice
{
    unsigned int type = 0;
    unsigned int task = 0;
    std::string file;
    unsigned int code = 0;
    unsigned int step = 0;
    unsigned int reply = 0;
    unsigned int detail = 0;
    std::string reason;
    std::thread::id thread;
};

// All notifications since the last Clear, in order. Thread-safe.
std::vector<Notice> Notices();
void ClearNotices();

// Called in every notification after it was recorded; may be empty.
void SetHook(std::function<void(const Notice&)> hook);

// The callback that records.
void Record(void* user, tagTRAVEX_FTP_S_NOTIFY_DATA* data);

// Waits for a task and returns its outcome: "0 12", or "3 <code>/<step>/<reply> <reason>" with the
// step's name in travex_ftp.h, as "3 20/RETRIEVE/550 RETR refused: 550 gone"; with the number of a
// detail, if any, as "3 18/TLS/0/1 certificate is not valid for host 127.0.0.1". Empty if it did
// not end in time.
std::string OutcomeOf(unsigned int task);

// Limits of the process for the life of the object; those left 0 are the defaults.
class Limits
{
public:
    explicit Limits(const std::function<void(tagTRAVEX_FTP_S_LIMITS&)>& set);
    ~Limits();
    Limits(const Limits&) = delete;
    Limits& operator=(const Limits&) = delete;
};

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

// The name of a step in travex_ftp.h, such as "RETRIEVE"; "?": unknown.
const char* StepName(unsigned int step);

// Threads of this process, the calling one included.
size_t CountThreads();

// Server process of tests/support/faulty_ftp_server.py.
class FaultyServer
{
public:
    explicit FaultyServer(const std::string& fault, std::vector<std::string> options = {});

    unsigned int Port() const;
    std::string Log() const;
    size_t Count(const std::string& line) const;  // lines of the log that begin with it
    std::vector<std::string> Lines(const std::string& begin) const;  // the rest of those lines
    std::vector<std::string> Commands() const;

    static std::string Body(size_t size);  // the file that it serves

private:
    support::TemporaryDirectory m_directory;
    std::unique_ptr<support::Process> m_process;
    unsigned int m_port = 0;
};

// Certificates of the test program.
const support::TestCertificates& Certificates();

// Options of a FaultyServer with TLS; and with explicit TLS or none.
std::vector<std::string> TlsOptions(const std::string& kind = "explicit");
std::vector<std::string> OptionsFor(bool tls);

// Control parameters for an address and a work directory.
tagTRAVEX_FTP_S_CTRL_PARAM Parameters(const std::string& host, unsigned int port,
                                      const std::string& directory);

// Parameters of a server of the support library. pcFtpCtrlInfo must outlive the record.
tagTRAVEX_FTP_S_CTRL_PARAM ParametersOf(const support::FtpServer& server,
                                        const std::string& directory);

// A new handle with parameters, and a download on a handle into its work directory; 0 when it was
// refused. Failures fail the test.
TRAVEX_FTP_HANDLE HandleWith(const tagTRAVEX_FTP_S_CTRL_PARAM& parameters);
unsigned int StartOn(TRAVEX_FTP_HANDLE handle, const std::string& serverFile,
                     const std::string& localFile);

// An initialised layer, a handle and a directory to download into.
class LayerTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Parameters for a server of this test, with TLS that is verified or without.
    tagTRAVEX_FTP_S_CTRL_PARAM RecordFor(const FaultyServer& server, bool tls = false) const;

    // Sets the parameters; a failure fails the test.
    void Use(const tagTRAVEX_FTP_S_CTRL_PARAM& parameters);

    // Starts a download on the handle; 0 when it was refused.
    unsigned int Start(const std::string& serverFile, const std::string& localFile);

    // One whole download: OutcomeOf.
    std::string Fetch(const std::string& serverFile, const std::string& localFile);

    std::string Content(const std::string& localFile) const;

    support::TemporaryDirectory m_directory;
    TRAVEX_FTP_HANDLE m_handle = nullptr;
};

}  // namespace ftp_test

#endif
