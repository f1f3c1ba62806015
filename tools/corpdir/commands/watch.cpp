#include "commands/command.h"
#include "commands/run_log.h"
#include "commands/watcher.h"
#include "exit_error.h"
#include "ftpcorpdir.h"
#include "os/signals.h"

namespace corpdir_tool
{

int RunWatch(const Options& options, const CipherSource& ciphers,
             const std::function<Options()>& again)
{
    const ServiceManager manager;
    const WatchSettings settings =
        OrLogged("watch", options,
                 [&]
                 {
                     return WatchSettings{MakePlan(options, ciphers),
                                          std::make_shared<PasswordSource>(options.passwordFile)};
                 });
    // A watch that is stopped by a signal ends with success.
    CommandProcess process([](int) { return static_cast<int>(kExitFetched); }, true);
    // Without a password file that can be read again, the password of the start stays in use.
    const auto reload = [&]
    {
        const Options read = again();
        return WatchSettings{MakePlan(read, ciphers), std::make_shared<PasswordSource>(
                                                          read.passwordFile, *settings.password)};
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
