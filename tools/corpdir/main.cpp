// corpdir: fetches a corporate directory from FTP and FTPS servers.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "cli/ciphers.h"
#include "cli/command_line.h"
#include "commands/command.h"
#include "exit_error.h"
#include "travex_ftp.h"
#include "ui/cipher_table.h"

namespace
{

using corpdir_tool::CipherTable;
using corpdir_tool::Options;

CipherTable KnownCiphers()
{
    CipherTable table;
    const auto add = [](void* user, const tagTRAVEX_FTP_S_CIPHER* seen)
    {
        static_cast<CipherTable*>(user)->push_back(
            {seen->iCipher, seen->pcStandardName, seen->pcOpensslName, seen->pcSince});
    };
    if (TRAVEX_FTP_ListCiphers(add, &table) != TRAVEX_FTP_OK)
    {
        throw corpdir_tool::ExitError(corpdir_tool::kExitInternal,
                                      "cannot list the cipher suites of this system");
    }
    return table;
}

int ListCiphers(const Options& options)
{
    const auto print = options.json ? corpdir_tool::PrintCiphersAsJson : corpdir_tool::PrintCiphers;
    print(KnownCiphers(), stdout);
    return 0;
}

constexpr char kDefaultSettings[] = "/etc/corpdir/corpdir.conf";

std::string VersionText()
{
    return std::string("corpdir " CORPDIR_VERSION ", built " CORPDIR_BUILD_DATE
                       " " CORPDIR_BUILD_TIME " UTC\n") +
           TRAVEX_FTP_Libraries();
}

// The options of the same command line, with the settings file as it is now.
Options ReadAgain(int argc, char** argv)
{
    Options read;
    const auto keep = [&read](const Options& options)
    {
        read = options;
        return 0;
    };
    if (corpdir_tool::RunCommandLine(argc, argv, {keep, keep, keep, keep, keep}, VersionText,
                                     kDefaultSettings) != 0)
    {
        throw corpdir_tool::ExitError(corpdir_tool::kExitArguments,
                                      "the settings file cannot be used, see standard error");
    }
    return read;
}

int Run(int argc, char** argv)
{
    const corpdir_tool::Commands commands = {
        [](const Options& options) { return corpdir_tool::RunFetch(options, KnownCiphers); },
        [=](const Options& options) {
            return corpdir_tool::RunWatch(options, KnownCiphers,
                                          [=] { return ReadAgain(argc, argv); });
        },
        [](const Options& options) { return corpdir_tool::RunCheck(options, KnownCiphers); },
        [](const Options& options) { return corpdir_tool::RunStatus(options); }, ListCiphers};
    return corpdir_tool::RunCommandLine(argc, argv, commands, VersionText, kDefaultSettings);
}

// A success whose output could not be written is a failure.
int WithOutputWritten(int status)
{
    std::cout.flush();  // used by the parser for help and version
    const bool written = std::cout.good() && std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (status == corpdir_tool::kExitFetched && !written)
    {
        throw corpdir_tool::ExitError(corpdir_tool::kExitLocalFile,
                                      "standard output cannot be written");
    }
    return status;
}

// If a standard stream is closed, the next file or socket would get its descriptor, and messages
// would be written there. Writing to the replacement fails, as writing to a closed stream does.
void FillStandardStreams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    {
        if (fcntl(descriptor, F_GETFD) < 0)
        {
            (void)open("/dev/null", O_RDONLY);  // gets the lowest free number, which is this one
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    FillStandardStreams();
    try
    {
        return WithOutputWritten(Run(argc, argv));
    }
    catch (const corpdir_tool::ExitError& error)
    {
        (void)std::fprintf(stderr, "corpdir: %s\n", error.what());
        return error.Status();
    }
    catch (const std::exception& error)
    {
        (void)std::fprintf(stderr, "corpdir: %s\n", error.what());
        return corpdir_tool::kExitInternal;
    }
}
