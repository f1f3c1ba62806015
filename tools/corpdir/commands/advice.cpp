#include "commands/advice.h"

#include "commands/layer_settings.h"
#include "commands/tool_log.h"

namespace corpdir_tool
{

void GiveHint(const std::string& hint, const Plan& plan, Report& report)
{
    if (hint.empty())
    {
        return;
    }
    report.Hint(hint);
    tag_CORPDIR_LOGINFO info = LogSettingsOf(plan);
    if (plan.UsedLogLevel() && CorpDir_OpenLog(&info) == 0)
    {
        TOOL_LOG(CORPDIR_LOG_NOTICE, "Hint: %s", hint.c_str());
    }
}

}  // namespace corpdir_tool
