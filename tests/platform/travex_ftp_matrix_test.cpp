// All servers, channels and address families: files of all sizes arrive complete over one login,
// with the certificate checked and the TLS session of the control channel resumed.
//
//     CORPDIR_MATRIX_BIG_BYTES   size of the big file; default 4 MB
//     CORPDIR_MATRIX_FILE        file for a table of the results
#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "captured_log.h"
#include "travex_ftp_fixture.h"

namespace
{
using ftp_test::Certificates;
using ftp_test::LayerTest;
using ftp_test::ParametersOf;
using support::FtpServer;
using support::FtpServerOptions;
using support::Tls;

template <typename Server>
std::unique_ptr<FtpServer> Make(const FtpServerOptions& options)
{
    return std::make_unique<Server>(options);
}

struct ServerKind
{
    const char* name;
    const char* title;
    std::unique_ptr<FtpServer> (*make)(const FtpServerOptions& options);
    bool demandsResumption;  // refuses a data channel that does not resume the session
    bool givesTickets;       // for TLS 1.3, which needs them for resumption
    const char* proof;       // first file whose 150 has its size; null: none
    int crowd;               // connections that it accepts at the same moment
};

const ServerKind kServers[] = {
    {"Vsftpd", "vsftpd", Make<support::VsftpdServer>, true, true, "one", 40},
    {"Proftpd", "ProFTPD", Make<support::ProftpdServer>, true, true, "version.txt", 40},
    {"PureFtpd", "Pure-FTPd", Make<support::PureFtpdServer>, false, false, nullptr, 8},
    {"Pyftpdlib", "pyftpdlib", Make<support::PyFtpServer>, false, true, nullptr, 40},
};

struct ChannelKind
{
    const char* name;
    const char* title;
    Tls tls;
    const char* version;  // of TLS, as OpenSSL names it
};

const ChannelKind kChannels[] = {
    {"Plain", "plain FTP", Tls::kNone, ""},
    {"ExplicitTls12", "explicit FTPS, default suites", Tls::kExplicit, "TLSv1.2"},
    {"ExplicitTls13", "explicit FTPS, TLS 1.3", Tls::kExplicit, "TLSv1.3"},
    {"ImplicitTls12", "implicit FTPS, default suites", Tls::kImplicit, "TLSv1.2"},
    {"ImplicitTls13", "implicit FTPS, TLS 1.3", Tls::kImplicit, "TLSv1.3"},
};

const char* const kHosts[] = {"127.0.0.1", "::1"};

// Combinations that cannot be tested, and the reason.
struct Impossible
{
    const char* server;
    Tls tls;
    const char* reason;
};

const Impossible kImpossible[] = {
    {"PureFtpd", Tls::kImplicit, "none: the server has no implicit FTPS"},
};

struct Cell
{
    const ServerKind* server;
    const ChannelKind* channel;
    std::string host;

    std::string Name() const
    {
        return std::string(server->name) + "_" + channel->name +
               (host.find(':') == std::string::npos ? "_V4" : "_V6");
    }

    // Empty: it is possible.
    std::string WhyImpossible() const
    {
        for (const Impossible& each : kImpossible)
        {
            if (each.server == std::string(server->name) && each.tls == channel->tls)
            {
                return each.reason;
            }
        }
        return "";
    }
};

void PrintTo(const Cell& cell, std::ostream* out)
{
    *out << cell.Name();
}

std::vector<Cell> AllCells()
{
    std::vector<Cell> cells;
    for (const ChannelKind& channel : kChannels)
    {
        for (const char* host : kHosts)
        {
            for (const ServerKind& server : kServers)
            {
                cells.push_back({&server, &channel, host});
            }
        }
    }
    return cells;
}

using Wanted = bool (*)(const Cell& cell);

std::vector<Cell> PossibleCells(Wanted wanted)
{
    std::vector<Cell> cells;
    for (const Cell& cell : AllCells())
    {
        if (cell.WhyImpossible().empty() && wanted(cell))
        {
            cells.push_back(cell);
        }
    }
    return cells;
}

bool Every(const Cell&)
{
    return true;
}

// For tests that do not depend on the address family.
bool Ipv4(const Cell& cell)
{
    return cell.host == kHosts[0];
}

// For tests that depend on the server only.
bool PlainIpv4(const Cell& cell)
{
    return Ipv4(cell) && cell.channel->tls == Tls::kNone;
}

std::size_t BigSize()
{
    const char* const text = std::getenv("CORPDIR_MATRIX_BIG_BYTES");
    return text == nullptr ? 4u << 20 : std::stoul(text);
}

// Created once; servers get hard links to it.
const std::string& BigFile()
{
    static const support::TemporaryDirectory directory;
    static const std::string path = []
    {
        const std::string made = directory.File("big");
        support::WriteFile(made, support::PatternBytes(BigSize(), 29));
        std::filesystem::permissions(made, std::filesystem::perms(0644));
        return made;
    }();
    return path;
}

// Compares files block by block.
bool SameBytes(const std::string& left, const std::string& right)
{
    std::ifstream files[2];
    std::vector<char> blocks[2] = {std::vector<char>(1 << 20), std::vector<char>(1 << 20)};
    files[0].open(left, std::ios::binary);
    files[1].open(right, std::ios::binary);
    while (files[0] && files[1])
    {
        for (int i = 0; i != 2; ++i)
        {
            files[i].read(blocks[i].data(), static_cast<std::streamsize>(blocks[i].size()));
        }
        const auto count = static_cast<std::size_t>(files[0].gcount());
        if (files[0].bad() || files[1].bad() || files[1].gcount() != files[0].gcount() ||
            memcmp(blocks[0].data(), blocks[1].data(), count) != 0)
        {
            return false;
        }
    }
    return files[0].eof() && files[1].eof();
}

// TLS handshakes in the layer's log.
struct Handshakes
{
    std::vector<std::string> control;  // "TLSv1.3 TLS_AES_256_GCM_SHA384" each
    std::vector<std::string> data;
    std::size_t resumed = 0;  // of the data channels
};

Handshakes LoggedHandshakes()
{
    Handshakes seen;
    for (std::string text : captured_log::Texts(2))
    {
        const std::string resumed = ", session resumed";
        for (const std::string kind : {"control", "data"})
        {
            const std::string mark = ": " + kind + " channel ";
            const auto start = text.find(mark);
            if (start == std::string::npos)
            {
                continue;
            }
            const auto end = text.find(resumed);
            const auto begin = start + mark.size();
            (kind == "data" ? seen.data : seen.control).push_back(text.substr(begin, end - begin));
            seen.resumed += kind == "data" && end != std::string::npos ? 1 : 0;
        }
    }
    return seen;
}

// Results of the cells, by name of the test, and the servers' versions.
std::map<std::string, std::string> g_results;
std::map<std::string, std::string> g_versions;

class Report : public testing::Environment
{
public:
    void TearDown() override
    {
        const char* const path = std::getenv("CORPDIR_MATRIX_FILE");
        if (path != nullptr)
        {
            support::WriteFile(path, Text());
        }
    }

private:
    static std::string Text()
    {
        std::ostringstream text;
        for (const ServerKind& server : kServers)
        {
            text << "- " << server.title << ": " << g_versions[server.name] << "\n";
        }
        text << "- TLS library: " << TRAVEX_FTP_Libraries() << "\n- big file: " << BigSize()
             << " bytes\n\n"
             << "| channel | address |";
        for (const ServerKind& server : kServers)
        {
            text << " " << server.title << " |";
        }
        text << "\n|---|---|---|---|---|---|\n";
        const Cell* row = nullptr;
        const std::vector<Cell> cells = AllCells();
        for (const Cell& cell : cells)
        {
            if (row == nullptr || row->channel != cell.channel || row->host != cell.host)
            {
                text << (row == nullptr ? "" : "\n") << "| " << cell.channel->title << " | "
                     << cell.host << " |";
            }
            row = &cell;
            const std::string reason = cell.WhyImpossible();
            const auto result = g_results.find(cell.Name());
            text << " "
                 << (!reason.empty()             ? reason
                     : result == g_results.end() ? "no result"
                                                 : result->second)
                 << " |";
        }
        text << "\n";
        return text.str();
    }
};

const testing::Environment* const g_report = testing::AddGlobalTestEnvironment(new Report);

class Matrix : public LayerTest, public testing::WithParamInterface<Cell>
{
protected:
    static constexpr const char* kFiles[] = {"empty", "one", "version.txt", "directory.dat", "big"};

    static FtpServerOptions Options()
    {
        const Cell& cell = GetParam();
        FtpServerOptions options;
        options.host = cell.host;
        options.tls = cell.channel->tls;
        options.require_session_reuse = cell.server->demandsResumption;
        if (options.tls != Tls::kNone)
        {
            options.certificate = Certificates().Good();
        }
        return options;
    }

    static void AddFiles(FtpServer& server)
    {
        server.AddFile("empty", "");
        server.AddFile("one", "1");
        server.AddFile("version.txt", "edition 2026-11-21");
        server.AddFile("directory.dat", support::PatternBytes(65536, 7));
        std::filesystem::create_hard_link(BigFile(), server.Root() + "/big");
    }

    void UseVerified(const FtpServer& server, const char* password = nullptr)
    {
        auto record = VerifiedRecord(server);
        if (password != nullptr)
        {
            strcpy(record.acPassword, password);
        }
        Use(record);
    }

    tagTRAVEX_FTP_S_CTRL_PARAM VerifiedRecord(const FtpServer& server)
    {
        static const int kDefaultSuites[] = {0x03000035, 0x0300003C, 0x0300003D};
        m_trust = "ca=" + Certificates().Authority() +
                  (server.Options().tls == Tls::kImplicit ? ";tls=implicit" : "");
        auto record = ParametersOf(server, m_directory.Path());
        if (server.Options().tls != Tls::kNone)
        {
            record.pcFtpCtrlInfo = m_trust.c_str();
            record.ulCertVerify = 1;
        }
        if (GetParam().channel->version == std::string("TLSv1.2"))
        {
            record.piCipherList = kDefaultSuites;
            record.ulCipherNum = 3;
        }
        return record;
    }

    // All commands for five files: one login, and two or three commands for each file. SIZE is left
    // out once the 150 of a file has proven reliable. An empty file proves nothing, nor does
    // ProFTPD's "1 byte".
    static std::vector<std::string> ExpectedCommands()
    {
        const Tls tls = GetParam().channel->tls;
        std::vector<std::string> commands;
        if (tls == Tls::kExplicit)
        {
            commands = {"AUTH TLS"};
        }
        commands.insert(commands.end(), {"USER ftp", "PASS"});
        if (tls != Tls::kNone)
        {
            commands.insert(commands.end(), {"PBSZ 0", "PROT P"});
        }
        commands.push_back("TYPE I");
        const char* const proof = GetParam().server->proof;
        bool proven = false;
        for (const std::string file : kFiles)
        {
            commands.push_back("EPSV");
            if (!proven)
            {
                commands.push_back("SIZE " + file);
            }
            commands.push_back("RETR " + file);
            proven = proven || (proof != nullptr && file == proof);
        }
        return commands;
    }

    static void CheckHandshakes(const Handshakes& seen)
    {
        using testing::AnyOf;
        using testing::Each;
        using testing::StartsWith;
        if (GetParam().channel->tls == Tls::kNone)
        {
            EXPECT_TRUE(seen.control.empty() && seen.data.empty());
            return;
        }
        ASSERT_EQ(1u, seen.control.size());
        EXPECT_EQ(std::size(kFiles), seen.data.size());
        const bool resumes = GetParam().server->givesTickets ||
                             GetParam().channel->version == std::string("TLSv1.2");
        EXPECT_EQ(resumes ? seen.data.size() : 0u, seen.resumed);
        EXPECT_THAT(seen.data, Each(seen.control[0]));
        if (GetParam().channel->version == std::string("TLSv1.2"))
        {
            EXPECT_THAT(seen.control[0], AnyOf("TLSv1.2 AES256-SHA", "TLSv1.2 AES128-SHA256",
                                               "TLSv1.2 AES256-SHA256"));
        }
        else
        {
            EXPECT_THAT(seen.control[0], StartsWith("TLSv1.3 "));
        }
    }

    static void Remember(const FtpServer& server, const Handshakes& seen)
    {
        std::ostringstream text;
        if (!seen.control.empty())
        {
            text << seen.control[0] << ", session resumed " << seen.resumed << " of "
                 << seen.data.size() << (GetParam().server->demandsResumption ? " (demanded)" : "")
                 << ", ";
        }
        text << server.Commands().size() << " commands";
        g_results[GetParam().Name()] = text.str();
        g_versions[GetParam().server->name] = server.Version();
    }

private:
    std::string m_trust;
};

TEST_P(Matrix, EveryFileArrivesCompleteOverOneLogin)
{
    const auto server = GetParam().server->make(Options());
    AddFiles(*server);
    UseVerified(*server);
    captured_log::Clear();
    for (const std::string file : kFiles)
    {
        ASSERT_EQ("0 12", Fetch(file, file)) << file;
        EXPECT_TRUE(SameBytes(server->Root() + "/" + file, m_directory.File(file))) << file;
    }
    EXPECT_EQ(BigSize(), std::filesystem::file_size(m_directory.File("big")));
    // Some servers log a command after they have answered it.
    EXPECT_TRUE(support::WaitUntil([&] { return server->CountCommands("RETR big") == 1; }));
    EXPECT_EQ(ExpectedCommands(), server->Commands());
    const Handshakes seen = LoggedHandshakes();
    CheckHandshakes(seen);
    if (!HasFailure())
    {
        Remember(*server, seen);
    }
}

class Refusals : public Matrix
{
};

class Crowds : public Matrix
{
};

// Reported with the reply; the next transfer works.
TEST_P(Refusals, HaveTheirReasons)
{
    const auto server = GetParam().server->make(Options());
    server->AddFile("f", "some bytes");
    UseVerified(*server, "not-this-one");
    EXPECT_THAT(Fetch("f", "f"), testing::StartsWith("3 19/LOGIN/530 login refused: 530 "));
    UseVerified(*server);
    EXPECT_THAT(Fetch("missing", "m"), testing::StartsWith("3 20/RETRIEVE/550 RETR refused: 550 "));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ("some bytes", Content("f"));
}

// Each handle has its own connection. vsftpd allows 50 for each client, and Pure-FTPd's listen
// queue holds 9: it drops the others silently.
TEST_P(Crowds, AreServedCompletely)
{
    const int handles = GetParam().server->crowd;
    const auto server = GetParam().server->make(Options());
    server->AddFile("f", "some bytes");
    std::vector<unsigned int> tasks;
    for (int i = 0; i != handles; ++i)
    {
        tasks.push_back(ftp_test::StartOn(ftp_test::HandleWith(VerifiedRecord(*server)), "f",
                                          "f" + std::to_string(i)));
    }
    for (const unsigned int task : tasks)
    {
        ASSERT_EQ("0 12", ftp_test::OutcomeOf(task));
    }
    for (int i = 0; i != handles; ++i)
    {
        EXPECT_EQ("some bytes", Content("f" + std::to_string(i)));
    }
}

std::string NameOf(const testing::TestParamInfo<Cell>& cell)
{
    return cell.param.Name();
}

INSTANTIATE_TEST_SUITE_P(All, Matrix, testing::ValuesIn(PossibleCells(Every)), NameOf);
INSTANTIATE_TEST_SUITE_P(All, Refusals, testing::ValuesIn(PossibleCells(PlainIpv4)), NameOf);
INSTANTIATE_TEST_SUITE_P(All, Crowds, testing::ValuesIn(PossibleCells(Ipv4)), NameOf);

}  // namespace
