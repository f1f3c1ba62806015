#include "commands/watch.h"

#include <optional>

#include "commands/command.h"
#include "commands/failure.h"
#include "commands/watcher.h"
#include "ftpcorpdir.h"
#include "os/password.h"

namespace corpdir_tool
{

int RunWatch(const Options& options, const CipherSource& ciphers)
{
    const Plan plan = MakePlan(options, ciphers);
    Secret password;
    ReadPassword(options.passwordFile, password);

    // Being asked to stop is how a watch ends.
    CommandFrame frame(plan, [](int) { return static_cast<int>(EXIT_FETCHED); });
    WatchOutput output(stdout, options.json, options.quiet);
    std::optional<ChildCommand> command;
    if (!options.execute.empty())
    {
        command.emplace(options.execute, fileno(frame.Messages().Stream()), frame.Events());
    }
    const LastResort lastResort(frame,
                                [&command]
                                {
                                    if (command)
                                    {
                                        command->Kill();
                                    }
                                });
    Watcher watcher(*GetCorpDirInstance(), plan, SystemLookup, password, frame.Events(), output,
                    command ? &*command : nullptr);
    return watcher.Run();
}

}  // namespace corpdir_tool
