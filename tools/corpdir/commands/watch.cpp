#include "commands/command.h"
#include "commands/run_log.h"
#include "commands/watcher.h"
#include "exit_error.h"
#include "ftpcorpdir.h"
#include "os/signals.h"

namespace corpdir_tool
{

namespace
{

WatchSettings SettingsFrom(const Options& options, const CipherSource& ciphers)
{
    const Plan plan = MakePlan(options, ciphers);
    return {plan, std::make_shared<PasswordSource>(options.passwordFile)};
}

}  // namespace

int RunWatch(const Options& options, const CipherSource& ciphers,
             const std::function<Options()>& again)
{
    const ServiceManager manager;
    const WatchSettings settings = SettingsFrom(options, ciphers);
    // A watch that is stopped by a signal ends with success.
    CommandProcess process([](int) { return static_cast<int>(kExitFetched); }, true);
    // Without a password file, the password of the start stays in use.
    const auto reload = [&]
    {
        const Options read = again();
        return read.passwordFile.empty() || read.passwordFile == "-"
                   ? WatchSettings{MakePlan(read, ciphers), settings.password}
                   : SettingsFrom(read, ciphers);
    };
    RunLog log("watch", settings.plan);
    Watcher watcher(*GetCorpDirInstance(), settings, reload, SystemLookup, log, process.Events(),
                    stdout, manager);
    const LastResort lastResort(process, [&watcher] { watcher.Abandon(); });
    try
    {
        const int signalNumber = watcher.Run();
        log.End(kExitFetched, "stopped by " + SignalName(signalNumber));
        return kExitFetched;
    }
    catch (const ExitError& error)
    {
        log.End(error.Status(), error.what());
        throw;
    }
}

}  // namespace corpdir_tool
