// Shared by the tests of the program as a process: a server, a command line, the files fetched.
#ifndef CORPDIR_TESTS_PROGRAM_FIXTURE_H
#define CORPDIR_TESTS_PROGRAM_FIXTURE_H

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "files.h"
#include "ftp_servers.h"
#include "process.h"

namespace integration
{

// Exit statuses.
enum Status
{
    kFetched = 0,
    kBadArguments = 2,
    kNoServer = 3,
    kBadVersion = 4,
    kNoOutcome = 5,
    kLocalFile = 6,
    kNoState = 7,
    kStale = 8
};

inline const std::string kVersion = "edition 17\n";
inline const std::string kState = ".directory.csv.corpdir.json";
inline const std::string kLeftOut = "(left out)";
inline const std::string kOlder = "the directory that was there before\n";

class Program : public ::testing::Test
{
protected:
    Program() : m_directory(support::PatternBytes(200000, 1))
    {
        m_options.tls = support::Tls::kExplicit;
        m_options.certificate = m_certificates.Good();
    }

    // A sanitizer's report goes to a file, so that it does not disturb the output that is compared.
    ~Program() override
    {
        for (const std::string& name : support::FilesIn(m_reports.Path()))
        {
            ADD_FAILURE() << support::ReadFile(m_reports.File(name));
        }
    }

    support::FtpServer& Serve()
    {
        return Use(std::make_unique<support::PyFtpServer>(m_options));
    }

    support::FtpServer& ServeWithVsftpd()
    {
        return Use(std::make_unique<support::VsftpdServer>(m_options));
    }

    support::FtpServer& Use(std::unique_ptr<support::FtpServer> server)
    {
        m_server = std::move(server);
        m_port = m_server->Port();
        m_server->AddFile("version.txt", kVersion);
        m_server->AddFile("directory.csv", m_directory);
        return *m_server;
    }

    // A complete command line. `more` replaces or adds options ("--name=value"), and removes those
    // whose value is kLeftOut.
    support::Command Fetch(const std::vector<std::string>& more = {}) const
    {
        return Line("fetch", more);
    }

    // The same for another command or another build of the program.
    support::Command Line(const std::string& name, const std::vector<std::string>& more = {},
                          const std::string& program = CORPDIR_TEST_PROGRAM) const
    {
        std::vector<std::string> options = {
            "--servers=" + m_options.host,    "--port=" + std::to_string(m_port),
            "--user=" + m_options.user,       "--version-file=version.txt",
            "--directory-file=directory.csv", "--output-dir=" + m_output.Path()};
        if (m_options.tls == support::Tls::kNone)
        {
            options.push_back("--plain");
        }
        else
        {
            options.push_back("--ca=" + m_certificates.Authority());
        }
        for (const std::string& option : more)
        {
            const std::string key = option.substr(0, option.find('='));
            options.erase(std::remove_if(options.begin(), options.end(),
                                         [&key](const std::string& old)
                                         { return old.substr(0, old.find('=')) == key; }),
                          options.end());
            if (option != key + "=" + kLeftOut)
            {
                options.push_back(option);
            }
        }
        std::vector<std::string> arguments = {program, name};
        // The machine may have settings of its own.
        if (std::none_of(options.begin(), options.end(),
                         [](const std::string& option)
                         { return option.rfind("--config", 0) == 0; }))
        {
            arguments.push_back("--no-config");
        }
        arguments.insert(arguments.end(), options.begin(), options.end());
        return {arguments, Environment(m_options.password), ""};
    }

    std::vector<std::pair<std::string, std::string>> Environment(const std::string& password) const
    {
        std::vector<std::pair<std::string, std::string>> variables = {
            {"CORPDIR_PASSWORD", password}};
        for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"})
        {
            const char* present = std::getenv(name);
            variables.emplace_back(name, std::string(present == nullptr ? "" : present) +
                                             ":log_path=" + m_reports.File("report"));
        }
        return variables;
    }

    support::CommandResult Run(const std::vector<std::string>& more = {}) const
    {
        return support::RunCommand(Fetch(more));
    }

    // A run that fetches both files.
    support::CommandResult Fetched(const std::vector<std::string>& more = {}) const
    {
        const support::CommandResult result = Run(more);
        EXPECT_EQ(result.status, kFetched) << result.output;
        ExpectBothFiles();
        return result;
    }

    void ExpectBothFiles() const
    {
        EXPECT_EQ(support::ReadFile(m_output.File("version.txt")), kVersion);
        EXPECT_EQ(support::Sha256(support::ReadFile(m_output.File("directory.csv"))),
                  support::Sha256(m_directory));
        ExpectFiles({kState, "directory.csv", "version.txt"});
    }

    // Nothing else is left in the output directory.
    void ExpectFiles(const std::vector<std::string>& names) const
    {
        EXPECT_THAT(support::FilesIn(m_output.Path()), ::testing::ElementsAreArray(names));
    }

    support::TestCertificates m_certificates;
    support::FtpServerOptions m_options;
    std::string m_directory;
    std::unique_ptr<support::FtpServer> m_server;
    int m_port = 1;  // nothing listens there
    support::TemporaryDirectory m_output;
    support::TemporaryDirectory m_reports;
};

}  // namespace integration

#endif
