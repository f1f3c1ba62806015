#include "cli/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "cli/duration.h"
#include "cli/settings_file.h"
#include "cli/suggestion.h"
#include "exit_error.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

const char kStatusText[] = R"(Exit status:
  0  the directory file was fetched, or --if-changed found it unchanged
  1  the service could not be started, or the program ran out of memory
  2  invalid arguments
  3  every server failed
  4  the version file is not valid
  5  timed out (--timeout, --max-time)
  6  a local file or directory cannot be written
  128 + N  stopped by signal N)";

const char kProgramText[] = R"(Options can also be read from a settings file:
  servers = "dir1.example;dir2.example"
  user = "phone"
  password-file = "/etc/corpdir/phone.password"

'corpdir COMMAND --help' lists the options of a command.
The manual page is corpdir(1).)";

const char kFetchText[] = R"(Example:
  corpdir fetch --servers 'dir1.example;dir2.example' --user phone \
      --version-file /dir/version.txt --directory-file /dir/directory.csv \
      --output-dir /var/lib/phone --password-file /etc/corpdir/phone.password)";

const char kWatchText[] = R"(Example:
  corpdir watch --config /etc/corpdir/phone.conf --exec 'logger "$CORPDIR_VERSION"'

The command of --exec has CORPDIR_FILE, CORPDIR_VERSION and CORPDIR_SERVER in its
environment. It runs for each new version, one run at a time, and its output goes to
standard error. If it failed, or was ended with the watch, it is run again after the
next check, also that of the next start. The command of --on-failure has CORPDIR_FILE,
CORPDIR_REASON and CORPDIR_FAILURES. In the service corpdir-watch@ both run as the user
corpdir, and may write only to the two directories of the service; the manual page
has units that reload another service.

SIGUSR1 checks now. SIGHUP reads settings, password and authorities again, unless
standard input is a terminal; it then stops the watch.

Exit status:
  0  stopped by SIGTERM or SIGINT
  1  the service could not be started, or the program ran out of memory
  2  invalid arguments
  6  a local directory or the events cannot be written)";

const char kCheckText[] = R"(Example:
  corpdir check --config /etc/corpdir/phone.conf

From each server the version file is fetched, and the transfer of the directory file is
started and then cancelled; nothing is written to --output-dir, which may be left out.

The exit status is that of 'corpdir fetch' with the same options.)";

const char kStatusCommandText[] = R"(Example:
  corpdir status --config /etc/corpdir/phone.conf --max-age 25m

Reads what 'fetch' and 'watch' keep beside the directory file; asks no server.

Exit status:
  0  the directory file is there, as it was fetched
  2  invalid arguments
  6  standard output cannot be written
  7  nothing is known about the directory file, or it is missing or has another size
  8  the last check that fetched it or found it unchanged is --max-age ago or more)";

const char kServers[] = "Servers";
const char kFiles[] = "Files";
const char kProtection[] = "Protection (default: FTPS, certificate verified)";
const char kLimits[] = "Limits";
const char kMessages[] = "Messages";
const char kCommand[] = "Command";

const char kOutputText[] = "Existing directory to store both files in";

template <typename Value>
CLI::Option* Add(CLI::App& command, const char* group, const char* name, Value& value,
                 const char* type, const char* text)
{
    return command.add_option(name, value, text)->type_name(type)->group(group);
}

void AddFlag(CLI::App& command, const char* group, const char* name, bool& value, const char* text)
{
    command.add_flag(name, value, text)->group(group);
}

constexpr unsigned int kHour = 3600;  // seconds
constexpr unsigned int kDay = 24 * kHour;

void AddDuration(CLI::App& command, const char* group, const char* name, unsigned int& seconds,
                 const char* text, unsigned int least, unsigned int most)
{
    Add(command, group, name, seconds, "DURATION", text)->transform(Duration(least, most));
}

CLI::Validator Within(unsigned int least, unsigned int most)
{
    return CLI::Range(least, most).description("");  // not in the help
}

void AddServerOptions(CLI::App& command, Options& options)
{
    Add(command, kServers, "--servers", options.servers, "LIST",
        "Host names and addresses separated by ';', tried in this order")
        ->required();
    Add(command, kServers, "--port", options.port, "N",
        "Port of all servers (21; 990 is implicit FTPS)")
        ->check(Within(1, 65535));
    Add(command, kServers, "--local-ip", options.localIp, "ADDR", "Local address to connect from")
        ->check(NotEmpty());
    Add(command, kServers, "--user", options.user, "NAME", "User name")->required();
    Add(command, kServers, "--password-file", options.passwordFile, "FILE",
        "File with the password, '-' for standard input; default: the\n"
        "environment variable CORPDIR_PASSWORD, otherwise a prompt")
        ->check(NotEmpty());
}

void AddFileOptions(CLI::App& command, Options& options)
{
    Add(command, kFiles, "--version-file", options.versionFile, "REMOTE",
        "Version file on the server")
        ->required();
    Add(command, kFiles, "--directory-file", options.directoryFile, "REMOTE",
        "Directory file on the server")
        ->required();
    Add(command, kFiles, "--version-name", options.versionName, "LOCAL",
        "Local name of the version file (default: as on the server)")
        ->check(NotEmpty());
    Add(command, kFiles, "--directory-name", options.directoryName, "LOCAL",
        "Local name of the directory file (default: as on the server)")
        ->check(NotEmpty());
}

CLI::Option* AddOutputDir(CLI::App& command, Options& options, const char* text)
{
    return Add(command, kFiles, "--output-dir", options.outputDir, "DIR", text);
}

void AddProtectionOptions(CLI::App& command, Options& options)
{
    Add(command, kProtection, "--ca", options.ca, "FILE|DIR|system",
        "Certification authorities to trust: PEM file, directory, or 'system'\n"
        "(default)")
        ->check(NotEmpty());
    Add(command, kProtection, "--verify-name", options.verifyNames, "DNS",
        "Name that every certificate must have; if repeated, one of them is\n"
        "enough (default: the name or address in --servers)")
        ->allow_extra_args(false)
        ->delimiter(',');
    AddFlag(command, kProtection, "--no-verify", options.noVerify,
            "Accept any certificate: insecure, any server gets the password");
    AddFlag(command, kProtection, "--plain", options.plain,
            "FTP without TLS: insecure, password and files are not encrypted");
    Add(command, kProtection, "--ciphers", options.ciphers, "SET|SUITE,SUITE",
        "Cipher suites to offer: 'compatible' (default), 'modern', 'service', or a\n"
        "list of numbers and names; 'corpdir ciphers' lists them")
        ->allow_extra_args(false)
        ->delimiter(',');
}

void AddLimitOptions(CLI::App& command, Options& options)
{
    AddDuration(command, kLimits, "--connect-timeout", options.connectTimeout,
                "Time limit for one TCP connection, control or data (10s)", 1, kHour);
    Add(command, kLimits, "--max-size", options.maxSize, "SIZE",
        "Largest file to accept, such as 500000, 20kb or 1gb (16gib)")
        ->transform(CLI::AsSizeValue(true).description(""))
        ->check(CLI::Range(std::uint64_t{2}, std::uint64_t{1} << 60).description(""));
}

void AddTimeLimits(CLI::App& command, Options& options)
{
    AddDuration(command, kLimits, "--timeout", options.timeoutSeconds,
                "Longest time without progress (2m); it ends the whole command, so\n"
                "choose more than 20s, after which a silent server is given up",
                1, 7 * kDay);
    AddDuration(command, kLimits, "--max-time", options.maxTimeSeconds,
                "Time limit for the whole command (none)", 1, 7 * kDay);
}

void AddLogOptions(CLI::App& command, Options& options)
{
    Add(command, kMessages, "--log-dir", options.logDir, "DIR", "Write a log to this directory")
        ->check(NotEmpty());
    Add(command, kMessages, "--log-level", options.logLevel, "0|1|2",
        "0 errors, 1 also fallbacks, 2 everything (default with --log-dir);\n"
        "without --log-dir the log goes to standard error")
        ->check(Within(0, 2));
    Add(command, kMessages, "--log-size", options.logSize, "SIZE",
        "Size at which a log file of --log-dir is rotated (10mib)")
        ->transform(CLI::AsSizeValue(true).description(""))
        ->check(Within(1000, 4000000000));
    Add(command, kMessages, "--log-files", options.logFiles, "N", "Rotated log files to keep (5)")
        ->check(Within(1, 1000));
}

void AddRequestOptions(CLI::App& command, Options& options)
{
    AddServerOptions(command, options);
    AddFileOptions(command, options);
    AddProtectionOptions(command, options);
    AddLimitOptions(command, options);
    AddLogOptions(command, options);
    command.fallthrough();  // allows --config after the command
}

// One function for each command: its options.

CLI::App* AddFetch(CLI::App& program, Options& options)
{
    CLI::App* fetch = program.add_subcommand("fetch", "Fetch the directory file once");
    fetch->footer(std::string(kFetchText) + "\n\n" + kStatusText);
    AddRequestOptions(*fetch, options);
    AddOutputDir(*fetch, options, kOutputText)->required();
    AddFlag(*fetch, kFiles, "--if-changed", options.ifChanged,
            "Fetch the directory file only if the version or the local file has\n"
            "changed");
    AddTimeLimits(*fetch, options);
    AddFlag(*fetch, kMessages, "--json", options.json,
            "Print the outcome as one JSON object, also on failure");
    AddFlag(*fetch, kMessages, "--quiet", options.quiet,
            "Print errors only, including failed servers");
    AddFlag(*fetch, kMessages, "--no-progress", options.noProgress, "Show no progress");
    return fetch;
}

CLI::App* AddWatch(CLI::App& program, Options& options)
{
    CLI::App* watch = program.add_subcommand(
        "watch", "Check every ten minutes, and fetch each new directory file");
    watch->footer(kWatchText);
    AddRequestOptions(*watch, options);
    AddOutputDir(*watch, options, kOutputText)->required();
    AddDuration(*watch, kLimits, "--retry", options.retrySeconds,
                "Time until the next try when no server gave a usable file, or\n"
                "a local file cannot be written (1m)",
                1, 600);
    AddDuration(*watch, kLimits, "--splay", options.splaySeconds,
                "Wait a random time, at most this, before the first check (none)", 1, kDay);
    Add(*watch, kCommand, "--exec", options.execute, "COMMAND",
        "Run this shell command for each new directory file")
        ->check(NotEmpty());
    Add(*watch, kCommand, "--on-failure", options.onFailure, "COMMAND",
        "Run this shell command when a check failed")
        ->check(NotEmpty());
    AddDuration(*watch, kCommand, "--exec-timeout", options.execTimeoutSeconds,
                "Time limit for one run of either command (none)", 1, kDay);
    AddFlag(*watch, kMessages, "--json", options.json,
            "Print each event as a JSON object on its own line");
    AddFlag(*watch, kMessages, "--quiet", options.quiet, "Print failures only");
    return watch;
}

CLI::App* AddCheck(CLI::App& program, Options& options)
{
    CLI::App* check = program.add_subcommand(
        "check", "Test these options without downloading the directory file");
    check->footer(kCheckText);
    AddRequestOptions(*check, options);
    AddOutputDir(*check, options, "Directory to check for permissions and free space")
        ->check(NotEmpty());
    AddTimeLimits(*check, options);
    AddFlag(*check, kMessages, "--json", options.json, "Print the outcome as one JSON object");
    AddFlag(*check, kMessages, "--quiet", options.quiet, "Print only servers that fail");
    return check;
}

CLI::App* AddStatus(CLI::App& program, Options& options)
{
    CLI::App* command = program.add_subcommand("status", "Show what is known about a local file");
    command->footer(kStatusCommandText);
    command->fallthrough();
    AddOutputDir(*command, options, "Directory of the directory file")->required();
    Add(*command, kFiles, "--directory-file", options.directoryFile, "REMOTE",
        "Directory file on the server, as for 'fetch' and 'watch'")
        ->check(NotEmpty());
    Add(*command, kFiles, "--directory-name", options.directoryName, "LOCAL",
        "Local name of the directory file (default: as on the server)")
        ->check(NotEmpty());
    AddDuration(*command, kLimits, "--max-age", options.maxAgeSeconds,
                "Longest time since the last successful check (none)", 1, 366 * kDay);
    AddFlag(*command, kMessages, "--json", options.json, "Print one JSON object");
    return command;
}

CLI::App* AddCiphers(CLI::App& program, Options& options)
{
    CLI::App* ciphers = program.add_subcommand("ciphers", "List the available cipher suites");
    ciphers->footer("The default suites are offered when --ciphers is not given.");
    ciphers->fallthrough();
    AddFlag(*ciphers, kMessages, "--json", options.json, "Print them as a JSON array");
    return ciphers;
}

// A message on the first word that the parser did not understand, with a suggestion; else empty.
std::string UnknownWord(const CLI::App& program, const CLI::App* chosen)
{
    const std::vector<std::string> rest = program.remaining(true);
    const auto option =
        std::find_if(rest.begin(), rest.end(),
                     [](const std::string& word) { return !word.empty() && word.front() == '-'; });
    std::vector<std::string> names;
    const bool isCommandWrong = chosen == nullptr && option != rest.begin();
    if (option != rest.end() && !isCommandWrong)
    {
        const std::string word = option->substr(0, option->find('='));
        for (const CLI::App* app : {&program, chosen != nullptr ? chosen : &program})
        {
            for (const CLI::Option* known : app->get_options())
            {
                names.push_back("--" + known->get_single_name());
            }
        }
        return "unknown option '" + Printable(word) + "'" + Suggestion(word, names);
    }
    if (rest.empty())
    {
        return "";
    }
    for (const CLI::App* command : program.get_subcommands(nullptr))
    {
        names.push_back(command->get_name());
    }
    const std::string& word = rest.front();
    return (chosen == nullptr ? "unknown command '" : "unexpected '") + Printable(word) + "'" +
           (chosen == nullptr ? Suggestion(word, names) : "");
}

// Takes the required options from the parser, which would ask for them before the settings file is
// read. The help still marks them.
std::vector<const CLI::Option*> TakeRequired(CLI::App& command)
{
    std::vector<const CLI::Option*> required;
    for (CLI::Option* option :
         command.get_options([](const CLI::Option* known) { return known->get_required(); }))
    {
        option->required(false)->type_name(option->get_type_name() + " REQUIRED");
        required.push_back(option);
    }
    return required;
}

// Throws unless each has been given.
void CheckRequired(const std::vector<const CLI::Option*>& required)
{
    std::vector<std::string> names;
    for (const CLI::Option* option : required)
    {
        if (option->count() == 0)
        {
            names.push_back(option->get_name());
        }
    }
    if (names.empty())
    {
        return;
    }
    std::string list;
    for (std::size_t i = 0; i != names.size(); ++i)
    {
        list += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
    }
    throw CLI::ParseError(list + (names.size() == 1 ? " is required" : " are required") +
                              ", on the command line or in a settings file",
                          kExitArguments);
}

// A message on an option that is given more than once and must not be; else empty.
std::string Repeated(const CLI::App& program, const CLI::App* chosen)
{
    for (const CLI::App* app : {&program, chosen != nullptr ? chosen : &program})
    {
        for (const CLI::Option* option : app->get_options())
        {
            const std::size_t times = option->count();
            if (option->get_items_expected_max() == 1 && times > 1)
            {
                return option->get_name() + " is given " +
                       (times == 2 ? "twice" : std::to_string(times) + " times");
            }
        }
    }
    return "";
}

std::string ParseProblem(const CLI::App* program, const CLI::Error& error)
{
    const std::vector<const CLI::App*> commands =
        program->get_subcommands([](const CLI::App* command) { return command->parsed(); });
    const CLI::App* const chosen = commands.empty() ? nullptr : commands.front();
    std::string problem = UnknownWord(*program, chosen);
    if (problem.empty())
    {
        problem = Repeated(*program, chosen);
    }
    if (problem.empty())
    {
        problem = error.what();
    }
    return "corpdir: " + problem + "\nTry 'corpdir " +
           (chosen == nullptr ? "" : chosen->get_name() + " ") + "--help'.\n";
}

// The options of the run, from the command line and the settings file, to repeat it without that
// file. A command may have a secret in it, and is left out.
std::string GivenOptions(const CLI::App& chosen)
{
    std::string given = "--no-config";
    for (const CLI::Option* option : chosen.get_options())
    {
        if (option->get_expected_max() == 0)
        {
            given += option->as<bool>() ? " " + option->get_name() : "";
        }
        else if (option->get_type_name() != "COMMAND")
        {
            for (const std::string& value : option->results())
            {
                given += " " + option->get_name() + " " + ShellWord(value);
            }
        }
    }
    return given;
}

void PrintNotices(const std::vector<std::string>& notices, const Options& options)
{
    for (const std::string& notice : notices)
    {
        if (!options.quiet)
        {
            (void)std::fprintf(stderr, "corpdir: %s\n", notice.c_str());
        }
    }
}

}  // namespace

int RunCommandLine(int argc, char** argv, const Commands& commands, std::string (*versionText)(),
                   const std::string& defaultSettings)
{
    CLI::App program("Fetches a corporate directory from FTP and FTPS servers.", "corpdir");
    program.require_subcommand(1);  // "corpdir" alone is a mistake
    program.failure_message(ParseProblem);
    program.footer(kProgramText);
    program.set_version_flag("-V,--version", versionText, "Print versions and exit");
    Options options;
    options.words.assign(argv + 1, argv + argc);
    const SettingsFile settings(program, defaultSettings);
    struct Command
    {
        CLI::App* parser;
        const Runner* run;
        std::vector<const CLI::Option*> required;
    };
    std::vector<Command> all = {{AddFetch(program, options), &commands.fetch, {}},
                                {AddWatch(program, options), &commands.watch, {}},
                                {AddCheck(program, options), &commands.check, {}},
                                {AddStatus(program, options), &commands.status, {}},
                                {AddCiphers(program, options), &commands.ciphers, {}}};
    for (Command& command : all)
    {
        command.required = TakeRequired(*command.parser);
    }
    const Command* chosen = nullptr;
    try
    {
        program.parse(argc, argv);
        chosen = &*std::find_if(all.begin(), all.end(),
                                [](const Command& command) { return command.parser->parsed(); });
        const UsedSettings used = settings.Apply(*chosen->parser);
        options.settingsFile = used.path;
        options.settings = used.names;
        PrintNotices(used.notices, options);
        CheckRequired(chosen->required);
        options.given = GivenOptions(*chosen->parser);
    }
    catch (const CLI::ParseError& error)
    {
        // The parser has its own statuses; 0 means that help or version was shown.
        return program.exit(error) == 0 ? 0 : kExitArguments;
    }
    return (*chosen->run)(options);
}

}  // namespace corpdir_tool
