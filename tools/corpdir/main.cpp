// corpdir: fetches a corporate directory from FTP and FTPS servers.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "failure.h"
#include "fetch.h"

namespace
{

using corpdir_tool::FetchOptions;

const char FOOTER[] = R"(Example:
  corpdir fetch --servers 'dir1.example;dir2.example' --user phone \
      --version-file /dir/version.txt --directory-file /dir/directory.csv \
      --output-dir /var/lib/phone --ca /etc/phone/ca.pem --password-file /etc/phone/password

Exit status:
  0  the directory file was fetched
  1  the service could not be started
  2  unusable arguments
  3  no server left: each one failed, for the reason named
  4  the version file on disk is not valid
  5  no outcome within --timeout
  6  a local file or directory cannot be written
  128 + N  stopped by signal N)";

// An empty value of an optional text is a variable that a script did not set, not a wish.
CLI::Validator NotEmpty()
{
    return CLI::Validator([](const std::string& value)
                          { return value.empty() ? std::string("Value is empty") : std::string(); },
                          "");
}

void AddServerOptions(CLI::App& fetch, FetchOptions& options)
{
    const char group[] = "Servers";
    fetch
        .add_option("--servers", options.servers,
                    "Host names and addresses separated by ';', tried in this order")
        ->required()
        ->type_name("LIST")
        ->group(group);
    fetch.add_option("--port", options.port, "Port of all servers (21; 990 is implicit FTPS)")
        ->check(CLI::Range(1U, 65535U).description(""))
        ->type_name("N")
        ->group(group);
    fetch.add_option("--local-ip", options.localIp, "Address of this machine to connect from")
        ->check(NotEmpty())
        ->type_name("ADDR")
        ->group(group);
    fetch.add_option("--user", options.user, "Name to log in with")
        ->required()
        ->type_name("NAME")
        ->group(group);
    fetch
        .add_option("--password-file", options.passwordFile,
                    "File with the password, '-' for standard input; without it the\n"
                    "variable CORPDIR_PASSWORD is used, else a prompt")
        ->check(NotEmpty())
        ->type_name("FILE")
        ->group(group);
}

void AddFileOptions(CLI::App& fetch, FetchOptions& options)
{
    const char group[] = "Files";
    fetch.add_option("--version-file", options.versionFile, "Version file on the server")
        ->required()
        ->type_name("REMOTE")
        ->group(group);
    fetch.add_option("--directory-file", options.directoryFile, "Directory file on the server")
        ->required()
        ->type_name("REMOTE")
        ->group(group);
    fetch.add_option("--output-dir", options.outputDir, "Existing directory to store both in")
        ->required()
        ->type_name("DIR")
        ->group(group);
    fetch
        .add_option("--version-name", options.versionName,
                    "Name of the version file there (default: as on the server)")
        ->check(NotEmpty())
        ->type_name("LOCAL")
        ->group(group);
    fetch
        .add_option("--directory-name", options.directoryName,
                    "Name of the directory file there (default: as on the server)")
        ->check(NotEmpty())
        ->type_name("LOCAL")
        ->group(group);
}

void AddProtectionOptions(CLI::App& fetch, FetchOptions& options)
{
    const char group[] = "Protection (default: FTPS, certificate verified)";
    fetch
        .add_option("--ca", options.ca,
                    "Certification authorities to trust: PEM file, directory, or 'system'\n"
                    "(default)")
        ->type_name("FILE|DIR|system")
        ->group(group);
    fetch
        .add_option("--verify-name", options.verifyNames,
                    "Name that the certificate must carry, may be repeated (default: the\n"
                    "host names of --servers, or the address connected to)")
        ->type_name("DNS")
        ->allow_extra_args(false)
        ->delimiter(',')
        ->group(group);
    fetch
        .add_flag("--no-verify", options.noVerify,
                  "Accept any certificate: whoever answers gets the password")
        ->group(group);
    fetch
        .add_flag("--plain", options.plain,
                  "FTP without TLS: password and files can be read on the way")
        ->group(group);
    fetch
        .add_option("--ciphers", options.ciphers,
                    "Cipher suites to offer, such as 0x03000035,0x003c or 53")
        ->type_name("ID,ID")
        ->allow_extra_args(false)
        ->delimiter(',')
        ->group(group);
}

void AddOutputOptions(CLI::App& fetch, FetchOptions& options)
{
    const char group[] = "Course and messages";
    fetch.add_option("--timeout", options.timeoutSeconds, "Time for everything")
        ->capture_default_str()
        ->check(CLI::Range(1U, 604800U).description(""))
        ->type_name("SECONDS")
        ->group(group);
    fetch.add_option("--log-dir", options.logDir, "Write the service's log to this directory")
        ->check(NotEmpty())
        ->type_name("DIR")
        ->group(group);
    fetch
        .add_option("--log-level", options.logLevel,
                    "0 errors, 1 fallbacks too, 2 everything (default with --log-dir);\n"
                    "without --log-dir the log goes to standard error")
        ->check(CLI::Range(0U, 2U).description(""))
        ->type_name("0|1|2")
        ->group(group);
    fetch.add_flag("--quiet", options.quiet, "Print errors only, failed servers included")
        ->group(group);
    fetch.add_flag("--no-progress", options.noProgress, "Show no progress on a terminal")
        ->group(group);
}

// Each command is a function like this one: it describes its options and says what runs it.
void AddFetch(CLI::App& program, FetchOptions& options, int& status)
{
    CLI::App* fetch = program.add_subcommand("fetch", "Fetch the directory file once");
    fetch->footer(FOOTER);
    AddServerOptions(*fetch, options);
    AddFileOptions(*fetch, options);
    AddProtectionOptions(*fetch, options);
    AddOutputOptions(*fetch, options);
    fetch->callback([&options, &status] { status = corpdir_tool::RunFetch(options); });
}

std::string ParseProblem(const CLI::App*, const CLI::Error& error)
{
    return std::string("corpdir: ") + error.what() +
           "\nTry 'corpdir --help' or 'corpdir fetch --help'.\n";
}

int Run(int argc, char** argv)
{
    CLI::App program("Fetches a corporate directory from FTP and FTPS servers.", "corpdir");
    program.require_subcommand(1);  // a bare "corpdir" is a mistake, not a wish for nothing
    program.failure_message(ParseProblem);
    FetchOptions fetchOptions;
    int status = 0;
    AddFetch(program, fetchOptions, status);
    try
    {
        program.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        // The parser has statuses of its own; only "help was shown" is a success.
        return program.exit(error) == 0 ? 0 : corpdir_tool::EXIT_ARGUMENTS;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    try
    {
        return Run(argc, argv);
    }
    catch (const corpdir_tool::Failure& failure)
    {
        (void)std::fprintf(stderr, "corpdir: %s\n", failure.what());
        return failure.Status();
    }
    catch (const std::exception& error)
    {
        (void)std::fprintf(stderr, "corpdir: %s\n", error.what());
        return corpdir_tool::EXIT_INTERNAL;
    }
}
