#include "ftp_servers.h"

#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

namespace support
{
namespace
{

bool IsIpv6(const std::string& host)
{
    return host.find(':') != std::string::npos;
}

class Socket
{
public:
    explicit Socket(const std::string& host)
        : m_ipv6(IsIpv6(host)),
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

// Searched once in a process. /usr/bin first: the package is for Debian's interpreter, and PATH may
// name another one first.
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

std::string Unpacked(const std::string& path)
{
    const std::string file = CORPDIR_TEST_SERVERS_DIR "/" + path;
    if (!FileExists(file))
    {
        throw std::runtime_error("no " + path + ": run scripts/get-servers");
    }
    return file;
}

// The packages of a folder, on one line.
std::string PackagesOf(const std::string& name)
{
    std::string text = ReadFile(Unpacked(name + "/packages"));
    text.erase(text.find_last_not_of('\n') + 1);
    for (auto at = text.find('\n'); at != std::string::npos; at = text.find('\n', at))
    {
        text.replace(at, 1, ", ");
    }
    return text;
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

std::string CurrentGroup()
{
    const group* entry = getgrgid(getegid());
    if (entry == nullptr)
    {
        throw std::runtime_error("the current group has no name");
    }
    return entry->gr_name;
}

// The salted form of crypt(3).
std::string HashOf(const std::string& password)
{
    const CommandResult result =
        RunCommand({{"openssl", "passwd", "-6", "-stdin"}, {}, ""}, password + "\n");
    if (result.status != 0)
    {
        throw std::runtime_error("openssl passwd failed:\n" + result.output);
    }
    return result.output.substr(0, result.output.find('\n'));
}

}  // namespace

FtpServer::FtpServer(const FtpServerOptions& options)
    : m_options(options), m_root(m_directory.File("root"))
{
    std::filesystem::create_directory(m_root);
    std::filesystem::permissions(m_root, std::filesystem::perms(0755));
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
    // Some servers read it as another user.
    std::filesystem::permissions(incoming, std::filesystem::perms(0644));
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

void FtpServer::LaunchOnPort(const std::string& name,
                             const std::function<Command(int port)>& command)
{
    for (int attempt = 0; attempt < 5; ++attempt)
    {
        const int port = m_options.port != 0 ? m_options.port : FreePort(m_options.host);
        Launch(command(port));
        bool greets = false;
        (void)WaitUntil([&] { return (greets = Greets(port)) || Ended(); });
        if (greets && !Ended())
        {
            SetPort(port);
            return;
        }
    }
    throw std::runtime_error(name + " does not start:\n" + Output() + Log());
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
           std::string(greeting, 3) == "220";
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
        arguments.push_back("--tls-min=" + options.min_tls);
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

std::string PyFtpServer::Version() const
{
    const std::string print = "import pyftpdlib; print('pyftpdlib ' + pyftpdlib.__ver__, end='')";
    return RunCommand({{PythonWithServer(), "-c", print}, {}, ""}).output;
}

std::string PyFtpServer::CommandOfLine(const std::string& line) const
{
    const std::string prefix = "COMMAND ";
    return line.rfind(prefix, 0) == 0 ? line.substr(prefix.size()) : "";
}

VsftpdServer::VsftpdServer(const FtpServerOptions& options) : FtpServer(options)
{
    WriteFile(Workplace("passwords"), options.password + "\n");
    std::filesystem::create_directory(Workplace("empty"));
    LaunchOnPort(
        "vsftpd",
        [this](int port) -> Command
        {
            WriteFile(Workplace("vsftpd.conf"), Configuration(port));
            return {{Unpacked("vsftpd/usr/sbin/vsftpd"), Workplace("vsftpd.conf")}, {}, ""};
        });
}

// Logins are anonymous, since the password file of anonymous logins can be ours: local users need
// PAM and with it files under /etc. No setting needs root or a kernel's namespaces.
std::string VsftpdServer::Configuration(int port) const
{
    const FtpServerOptions& options = Options();
    std::ostringstream text;
    text << "background=NO\nrun_as_launching_user=YES\nisolate=NO\nisolate_network=NO\n"
         << "seccomp_sandbox=NO\nsecure_chroot_dir=" << Workplace("empty") << "\n"
         << (IsIpv6(options.host)
                 ? std::string("listen=NO\nlisten_ipv6=YES\nlisten_address6=::1\n")
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

std::string VsftpdServer::Version() const
{
    return PackagesOf("vsftpd");
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

ProftpdServer::ProftpdServer(const FtpServerOptions& options) : FtpServer(options)
{
    const std::string users = Workplace("users");
    WriteFile(users, options.user + ":" + HashOf(options.password) + ":" +
                         std::to_string(geteuid()) + ":" + std::to_string(getegid()) +
                         "::" + Root() + ":/bin/sh\n");
    // ProFTPD refuses a list of users that others may read.
    std::filesystem::permissions(users, std::filesystem::perms(0600));
    LaunchOnPort("ProFTPD",
                 [this](int port) -> Command
                 {
                     WriteFile(Workplace("proftpd.conf"), Configuration(port));
                     return {{Unpacked("proftpd/usr/sbin/proftpd"), "--nodaemon", "--config",
                              Workplace("proftpd.conf")},
                             {},
                             ""};
                 });
}

// The users are those of our file and may be root. No file outside the workplace is read or
// written.
std::string ProftpdServer::Configuration(int port) const
{
    const FtpServerOptions& options = Options();
    std::ostringstream text;
    // Some releases of Debian build in what others have as modules. mod_delay is switched off.
    text << "ModulePath " CORPDIR_TEST_SERVERS_DIR "/proftpd/usr/lib/proftpd\n"
         << "<IfModule !mod_xfer.c>\nLoadModule mod_xfer.c\n</IfModule>\n"
         << "<IfModule mod_delay.c>\nDelayEngine off\n</IfModule>\n"
         << "ServerType standalone\nUser " << CurrentUser() << "\nGroup " << CurrentGroup()
         << "\nDefaultAddress " << options.host << "\nSocketBindTight on\nUseIPv6 "
         << (IsIpv6(options.host) ? "on" : "off") << "\nPort " << port << "\nPidFile "
         << Workplace("pid") << "\nScoreboardFile none\nControlsEngine off\n"
         << "UseReverseDNS off\nWtmpLog off\nUseLastlog off\nTransferLog none\n"
         << "AuthPAM off\nAuthOrder mod_auth_file.c\nAuthUserFile " << Workplace("users")
         << "\nRootLogin on\nRequireValidShell off\nUseFtpUsers off\nSystemLog " << Workplace("log")
         << "\nLogFormat commands \"COMMAND %r\"\nExtendedLog " << Workplace("log")
         << " ALL commands\n";
    if (options.tls != Tls::kNone)
    {
        text << "LoadModule mod_tls.c\nTLSEngine on\nTLSLog " << Workplace("log")
             << "\nTLSProtocol TLSv1.2" << (options.max_tls == "1.2" ? "" : " TLSv1.3")
             << "\nTLSCipherSuite " << (options.ciphers.empty() ? "DEFAULT" : options.ciphers)
             << "\nTLSRequired " << (options.require_tls ? "on" : "off")
             << "\nTLSRSACertificateFile " << options.certificate.certificate_file
             << "\nTLSRSACertificateKeyFile " << options.certificate.key_file << "\n"
             << (options.tls == Tls::kImplicit ? "TLSOptions UseImplicitSSL\n" : "")
             << (options.require_session_reuse ? "" : "TLSOptions NoSessionReuseRequired\n");
    }
    return text.str();
}

std::string ProftpdServer::Version() const
{
    return PackagesOf("proftpd");
}

std::string ProftpdServer::CommandOfLine(const std::string& line) const
{
    const std::string prefix = "COMMAND ";
    return line.rfind(prefix, 0) == 0 ? line.substr(prefix.size()) : "";
}

PureFtpdServer::PureFtpdServer(const FtpServerOptions& options) : FtpServer(options)
{
    if (options.tls == Tls::kImplicit)
    {
        throw std::invalid_argument("Pure-FTPd has no implicit TLS");
    }
    MakeUsers();
    LaunchOnPort("Pure-FTPd",
                 [this](int port) -> Command
                 {
                     return {Arguments(port),
                             {{"LD_PRELOAD", CORPDIR_TEST_PURE_FTPD_PRELOAD},
                              {"CORPDIR_SYSLOG_FILE", Workplace("log")}},
                             ""};
                 });
}

// The list is written here: pure-pw would ask for the password on a terminal and for a home
// directory that exists under another name. Only the database must come from pure-pw.
void PureFtpdServer::MakeUsers() const
{
    const passwd* nobody = geteuid() == 0 ? getpwnam("nobody") : getpwuid(geteuid());
    if (nobody == nullptr)
    {
        throw std::runtime_error("no user for Pure-FTPd");
    }
    WriteFile(Workplace("users"), Options().user + ":" + HashOf(Options().password) + ":" +
                                      std::to_string(nobody->pw_uid) + ":" +
                                      std::to_string(nobody->pw_gid) + "::" + Root() +
                                      "::::::::::::\n");
    const CommandResult result = RunCommand({{Unpacked("pure-ftpd/usr/bin/pure-pw"), "mkdb",
                                              Workplace("users.pdb"), "-f", Workplace("users")},
                                             {},
                                             ""});
    if (result.status != 0)
    {
        throw std::runtime_error("pure-pw failed:\n" + result.output);
    }
}

// Pure-FTPd takes a standard input that is a socket, as ours is, for its first and only client.
std::vector<std::string> PureFtpdServer::Arguments(int port) const
{
    const FtpServerOptions& options = Options();
    std::vector<std::string> arguments = {"/bin/sh",
                                          "-c",
                                          "exec \"$@\" </dev/null",
                                          "sh",
                                          Unpacked("pure-ftpd/usr/sbin/pure-ftpd"),
                                          IsIpv6(options.host) ? "--ipv6only" : "--ipv4only",
                                          "--bind=" + options.host + "," + std::to_string(port),
                                          "--pidfile=" + Workplace("pid"),
                                          "--login=puredb:" + Workplace("users.pdb"),
                                          "--minuid=1",
                                          "--noanonymous",
                                          "--dontresolve",
                                          "--verboselog"};
    if (geteuid() == 0)
    {
        arguments.push_back("--chrooteveryone");
    }
    if (options.tls != Tls::kNone)
    {
        arguments.push_back(options.require_tls ? "--tls=3" : "--tls=1");
        arguments.push_back("--certfile=" + options.certificate.certificate_file + "," +
                            options.certificate.key_file);
    }
    if (!options.ciphers.empty())
    {
        arguments.push_back("--tlsciphersuite=" + options.ciphers);
    }
    return arguments;
}

std::string PureFtpdServer::Version() const
{
    return PackagesOf("pure-ftpd");
}

// "(user@address) [DEBUG] Command [retr] [directory.dat]"
std::string PureFtpdServer::CommandOfLine(const std::string& line) const
{
    const std::string mark = "[DEBUG] Command [";
    const auto start = line.find(mark);
    const auto end = line.find("] [", start == std::string::npos ? start : start + mark.size());
    if (end == std::string::npos)
    {
        return "";
    }
    std::string verb = line.substr(start + mark.size(), end - start - mark.size());
    std::transform(verb.begin(), verb.end(), verb.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const std::string parameter = line.substr(end + 3, line.rfind(']') - end - 3);
    return parameter.empty() ? verb : verb + " " + parameter;
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
