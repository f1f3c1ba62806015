#include <unistd.h>

#include <optional>

#include "commands/command.h"
#include "commands/watcher.h"
#include "exit_error.h"
#include "ftpcorpdir.h"
#include "os/password.h"

namespace corpdir_tool
{

int RunWatch(const Options& options, const CipherSource& ciphers)
{
    const Plan plan = MakePlan(options, ciphers);
    Secret password;
    ReadPassword(options.passwordFile, password);

    // A watch that is stopped by a signal ends with success.
    CommandProcess process(plan, [](int) { return static_cast<int>(kExitFetched); });
    WatchOutput output(stdout, options.json, options.quiet);
    std::optional<ChildCommand> command;
    if (!options.execute.empty())
    {
        command.emplace(options.execute, STDERR_FILENO,
                        [&process](int status)
                        { process.Events().Push(EventKind::kCommandEnded, status); });
    }
    const LastResort lastResort(process,
                                [&command]
                                {
                                    if (command)
                                    {
                                        command->Kill();
                                    }
                                });
    Watcher watcher(*GetCorpDirInstance(), plan, SystemLookup, password, process.Events(), output,
                    command ? &*command : nullptr);
    return watcher.Run();
}

}  // namespace corpdir_tool
