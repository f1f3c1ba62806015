// Real FTP and FTPS servers on loopback, for tests.
//
//     FtpServerOptions options;
//     options.tls = Tls::kExplicit;
//     options.certificate = certificates.Good();
//     PyFtpServer server(options);
//     server.AddFile("version.txt", "edition 17\n");
//     ... server.Host(), server.Port() ...
//
// A server runs from its constructor, which returns when the server greets on its port, to its
// destructor. When a test failed meanwhile, the destructor prints the server's output and log.
#ifndef CORPDIR_TESTS_FTP_SERVERS_H
#define CORPDIR_TESTS_FTP_SERVERS_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "certificates.h"
#include "files.h"
#include "process.h"

namespace support
{

enum class Tls
{
    kNone,
    kExplicit,
    kImplicit
};

struct FtpServerOptions
{
    std::string host = "127.0.0.1";  // or another loopback address, or "::1"
    int port = 0;                    // 0: a free one
    Tls tls = Tls::kNone;
    ServerCertificate certificate;      // with TLS
    bool require_tls = true;            // with TLS: no login and no data connection without it
    std::string ciphers;                // suites up to TLS 1.2; empty: the server's default
    std::string min_tls = "1.2";        // or "1.3"; PyFtpServer only
    std::string max_tls = "1.3";        // or "1.2"; PyFtpServer and ProftpdServer only
    bool require_session_reuse = true;  // VsftpdServer and ProftpdServer only
    int bytes_per_second = 0;  // of each transfer, 0: no limit; PyFtpServer and VsftpdServer only
    std::string user = "ftp";  // VsftpdServer knows no other
    std::string password = "throw-away-17";
};

// Not thread-safe.
class FtpServer
{
public:
    virtual ~FtpServer();
    FtpServer(const FtpServer&) = delete;
    FtpServer& operator=(const FtpServer&) = delete;

    const FtpServerOptions& Options() const;
    const std::string& Host() const;
    int Port() const;
    const std::string& Root() const;  // the directory that it serves

    // Replaced by rename, so that a client sees the old or the new one.
    void AddFile(const std::string& name, const std::string& bytes);

    std::string Log() const;  // the clients' commands, in the server's own form

    // Commands as they were received, without the parameter of PASS.
    std::vector<std::string> Commands() const;
    std::size_t CountCommands(const std::string& command) const;

    virtual std::string Version() const = 0;  // what it was installed from, for reports

    void Stop();  // refuses connections afterwards

protected:
    explicit FtpServer(const FtpServerOptions& options);
    std::string Workplace(const std::string& name) const;
    void Launch(Command command);
    // For a server that binds a given port. When another program takes that port meanwhile, another
    // one is tried.
    void LaunchOnPort(const std::string& name, const std::function<Command(int port)>& command);
    bool Ended();
    std::string Output() const;
    void SetPort(int port);

private:
    bool Greets(int port) const;  // implicit TLS: accepts a connection
    virtual std::string CommandOfLine(const std::string& line) const = 0;

    FtpServerOptions m_options;
    TemporaryDirectory m_directory;
    std::string m_root;
    int m_port = 0;
    std::unique_ptr<Process> m_process;
};

// pyftpdlib, in one process and thread.
class PyFtpServer : public FtpServer
{
public:
    explicit PyFtpServer(const FtpServerOptions& options);
    std::string Version() const override;

private:
    std::string CommandOfLine(const std::string& line) const override;
};

// vsftpd, a process for each client.
class VsftpdServer : public FtpServer
{
public:
    explicit VsftpdServer(const FtpServerOptions& options);
    std::string Version() const override;

private:
    std::string Configuration(int port) const;
    std::string CommandOfLine(const std::string& line) const override;
};

// ProFTPD, a process for each client. Absolute paths are this machine's, as in a login without a
// root directory of its own.
class ProftpdServer : public FtpServer
{
public:
    explicit ProftpdServer(const FtpServerOptions& options);
    std::string Version() const override;

private:
    std::string Configuration(int port) const;
    std::string CommandOfLine(const std::string& line) const override;
};

// Pure-FTPd, two processes for each client. It has no implicit TLS. It refuses users that are root:
// launched by root it gives up its rights at the login, and with them all but the root directory;
// launched by another user, it serves as ProftpdServer does.
class PureFtpdServer : public FtpServer
{
public:
    explicit PureFtpdServer(const FtpServerOptions& options);
    std::string Version() const override;

private:
    void MakeUsers() const;
    std::vector<std::string> Arguments(int port) const;
    std::string CommandOfLine(const std::string& line) const override;
};

// A loopback port on which nothing listens now.
int FreePort(const std::string& host);

}  // namespace support

#endif
