#include "ftp_servers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

namespace support
{
namespace
{

class Socket
{
public:
    explicit Socket(const std::string& host)
        : m_ipv6(host.find(':') != std::string::npos),
          m_socket(socket(m_ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        m_address.sin6_family = static_cast<sa_family_t>(m_ipv6 ? AF_INET6 : AF_INET);
        void* field = m_ipv6 ? static_cast<void*>(&m_address.sin6_addr)
                             : &reinterpret_cast<sockaddr_in*>(&m_address)->sin_addr;
        if (m_socket < 0 || inet_pton(m_ipv6 ? AF_INET6 : AF_INET, host.c_str(), field) != 1)
        {
            throw std::runtime_error("no socket for " + host);
        }
    }

    ~Socket()
    {
        close(m_socket);
    }

    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int Handle() const
    {
        return m_socket;
    }

    // The port is at the same place in both kinds of address.
    sockaddr* Address(int port)
    {
        m_address.sin6_port = htons(static_cast<uint16_t>(port));
        return reinterpret_cast<sockaddr*>(&m_address);
    }

    socklen_t AddressLength() const
    {
        return m_ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    }

private:
    bool m_ipv6;
    int m_socket;
    sockaddr_in6 m_address = {};
};

// Found once in a process. /usr/bin first: the package is for Debian's interpreter, and another
// one may stand before it in PATH.
const std::string& PythonWithServer()
{
    static const std::string python = []
    {
        for (const char* candidate : {"/usr/bin/python3", "python3"})
        {
            if (RunCommand({{candidate, "-c", "import pyftpdlib, OpenSSL"}, {}, ""}).status == 0)
            {
                return std::string(candidate);
            }
        }
        throw std::runtime_error("no python3 with pyftpdlib and OpenSSL: run scripts/setup");
    }();
    return python;
}

std::string VsftpdProgram()
{
    const std::string program = CORPDIR_TEST_SERVERS_DIR "/vsftpd/usr/sbin/vsftpd";
    if (!FileExists(program))
    {
        throw std::runtime_error("no vsftpd: run scripts/get-servers");
    }
    return program;
}

const char* Name(Tls tls)
{
    return tls == Tls::kNone ? "none" : tls == Tls::kExplicit ? "explicit" : "implicit";
}

std::string CurrentUser()
{
    const passwd* entry = getpwuid(geteuid());
    if (entry == nullptr)
    {
        throw std::runtime_error("the current user has no name");
    }
    return entry->pw_name;
}

}  // namespace

FtpServer::FtpServer(const FtpServerOptions& options)
    : m_options(options), m_root(m_directory.File("root"))
{
    std::filesystem::create_directory(m_root);
}

FtpServer::~FtpServer()
{
    Stop();
    if (::testing::Test::HasFailure())
    {
        std::cerr << "--- output of the server on port " << m_port << "\n"
                  << Output() << "--- its log\n"
                  << Log() << "---\n";
    }
}

const FtpServerOptions& FtpServer::Options() const
{
    return m_options;
}

const std::string& FtpServer::Host() const
{
    return m_options.host;
}

int FtpServer::Port() const
{
    return m_port;
}

const std::string& FtpServer::Root() const
{
    return m_root;
}

void FtpServer::AddFile(const std::string& name, const std::string& bytes)
{
    const std::string incoming = Workplace("incoming");
    WriteFile(incoming, bytes);
    std::filesystem::rename(incoming, m_root + "/" + name);
}

std::string FtpServer::Log() const
{
    const std::string path = Workplace("log");
    return FileExists(path) ? ReadFile(path) : "";
}

std::vector<std::string> FtpServer::Commands() const
{
    std::vector<std::string> commands;
    std::istringstream lines(Log());
    for (std::string line; std::getline(lines, line);)
    {
        const std::string command = CommandOfLine(line);
        if (!command.empty())
        {
            commands.push_back(command.rfind("PASS", 0) == 0 ? "PASS" : command);
        }
    }
    return commands;
}

std::size_t FtpServer::CountCommands(const std::string& command) const
{
    std::size_t count = 0;
    for (const std::string& seen : Commands())
    {
        count += seen == command ? 1 : 0;
    }
    return count;
}

void FtpServer::Stop()
{
    if (m_process)
    {
        m_process->Stop();
    }
}

std::string FtpServer::Workplace(const std::string& name) const
{
    return m_directory.File(name);
}

void FtpServer::Launch(Command command)
{
    command.output_file = Workplace("output");
    m_process = std::make_unique<Process>(command);
}

bool FtpServer::Ended()
{
    return m_process->Poll().has_value();
}

bool FtpServer::Greets(int port) const
{
    Socket client(Host());
    if (connect(client.Handle(), client.Address(port), client.AddressLength()) != 0)
    {
        return false;
    }
    if (m_options.tls == Tls::kImplicit)
    {
        return true;
    }
    pollfd readable = {client.Handle(), POLLIN, 0};
    char greeting[4] = {};
    return poll(&readable, 1, 5000) == 1 &&
           recv(client.Handle(), greeting, sizeof greeting, 0) == sizeof greeting &&
           std::string(greeting, sizeof greeting) == "220 ";
}

std::string FtpServer::Output() const
{
    const std::string path = Workplace("output");
    return FileExists(path) ? ReadFile(path) : "";
}

void FtpServer::SetPort(int port)
{
    m_port = port;
}

PyFtpServer::PyFtpServer(const FtpServerOptions& options) : FtpServer(options)
{
    std::vector<std::string> arguments = {PythonWithServer(),
                                          CORPDIR_TEST_SUPPORT_DIR "/ftp_server.py",
                                          "--host=" + options.host,
                                          "--port=" + std::to_string(options.port),
                                          "--root=" + Root(),
                                          "--user=" + options.user,
                                          "--password=" + options.password,
                                          "--rate=" + std::to_string(options.bytes_per_second),
                                          "--log=" + Workplace("log"),
                                          std::string("--tls=") + Name(options.tls)};
    if (options.tls != Tls::kNone)
    {
        arguments.push_back("--cert=" + options.certificate.certificate_file);
        arguments.push_back("--key=" + options.certificate.key_file);
        arguments.push_back("--tls-max=" + options.max_tls);
    }
    if (options.tls != Tls::kNone && options.require_tls)
    {
        arguments.push_back("--tls-required");
    }
    if (!options.ciphers.empty())
    {
        arguments.push_back("--ciphers=" + options.ciphers);
    }
    Launch({arguments, {{"PYTHONDONTWRITEBYTECODE", "1"}}, ""});
    int port = 0;
    if (!WaitUntil([&] { return sscanf(Output().c_str(), "READY %d\n", &port) == 1 || Ended(); }) ||
        port == 0)
    {
        throw std::runtime_error("pyftpdlib does not start:\n" + Output());
    }
    SetPort(port);
}

std::string PyFtpServer::CommandOfLine(const std::string& line) const
{
    const std::string prefix = "COMMAND ";
    return line.rfind(prefix, 0) == 0 ? line.substr(prefix.size()) : "";
}

// vsftpd binds the port that its configuration names: another program may take it in between.
VsftpdServer::VsftpdServer(const FtpServerOptions& options) : FtpServer(options)
{
    WriteFile(Workplace("passwords"), options.password + "\n");
    std::filesystem::create_directory(Workplace("empty"));
    for (int attempt = 0; attempt < 5; ++attempt)
    {
        const int port = options.port != 0 ? options.port : FreePort(options.host);
        if (TryPort(port))
        {
            SetPort(port);
            return;
        }
    }
    throw std::runtime_error("vsftpd does not start:\n" + Output());
}

bool VsftpdServer::TryPort(int port)
{
    const std::string configuration = Workplace("vsftpd.conf");
    WriteFile(configuration, Configuration(port));
    Launch({{VsftpdProgram(), configuration}, {}, ""});
    bool greets = false;
    (void)WaitUntil([&] { return (greets = Greets(port)) || Ended(); });
    return greets && !Ended();
}

// Anonymous logins, whose password must be in a file of ours: a local user's would want PAM and
// with it files under /etc. Nothing that needs root or a kernel's namespaces.
std::string VsftpdServer::Configuration(int port) const
{
    const FtpServerOptions& options = Options();
    const bool ipv6 = options.host == "::1";
    std::ostringstream text;
    text << "background=NO\nrun_as_launching_user=YES\nisolate=NO\nisolate_network=NO\n"
         << "seccomp_sandbox=NO\nsecure_chroot_dir=" << Workplace("empty") << "\n"
         << (ipv6 ? std::string("listen=NO\nlisten_ipv6=YES\nlisten_address6=::1\n")
                  : "listen=YES\nlisten_ipv6=NO\nlisten_address=" + options.host + "\n")
         << "listen_port=" << port << "\n"
         << "anonymous_enable=YES\nlocal_enable=NO\nftp_username=" << CurrentUser() << "\n"
         << "anon_root=" << Root() << "\nanon_world_readable_only=NO\n"
         << "allow_writeable_chroot=YES\nsecure_email_list_enable=YES\nemail_password_file="
         << Workplace("passwords") << "\nanon_max_rate=" << options.bytes_per_second << "\n"
         << "xferlog_enable=YES\nxferlog_std_format=NO\nlog_ftp_protocol=YES\ndebug_ssl=YES\n"
         << "vsftpd_log_file=" << Workplace("log") << "\n";
    if (options.tls != Tls::kNone)
    {
        const char* required = options.require_tls ? "YES" : "NO";
        text << "ssl_enable=YES\nallow_anon_ssl=YES\nforce_anon_logins_ssl=" << required
             << "\nforce_anon_data_ssl=" << required
             << "\nrequire_ssl_reuse=" << (options.require_session_reuse ? "YES" : "NO")
             << "\nimplicit_ssl=" << (options.tls == Tls::kImplicit ? "YES" : "NO")
             << "\nssl_ciphers=" << (options.ciphers.empty() ? "HIGH" : options.ciphers)
             << "\nrsa_cert_file=" << options.certificate.certificate_file
             << "\nrsa_private_key_file=" << options.certificate.key_file << "\n";
    }
    return text.str();
}

std::string VsftpdServer::CommandOfLine(const std::string& line) const
{
    const std::string mark = "FTP command: Client \"" + Host() + "\", \"";
    const auto start = line.find(mark);
    if (start == std::string::npos)
    {
        return "";
    }
    const std::string rest = line.substr(start + mark.size());
    return rest.substr(0, rest.rfind('"'));
}

int FreePort(const std::string& host)
{
    Socket listener(host);
    socklen_t length = listener.AddressLength();
    sockaddr* address = listener.Address(0);
    if (bind(listener.Handle(), address, length) != 0 ||
        getsockname(listener.Handle(), address, &length) != 0)
    {
        throw std::runtime_error("no free port on " + host);
    }
    return ntohs(reinterpret_cast<sockaddr_in*>(address)->sin_port);
}

}  // namespace support
