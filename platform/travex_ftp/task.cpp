#include "task.h"

#include <unordered_set>

#include "guarded.h"

namespace travex_ftp
{
namespace
{
// Ids of live tasks, of all runs of the layer. Never destroyed: a task may outlive static objects.
struct LiveIds
{
    Mutex mutex;
    std::unordered_set<unsigned int> ids GUARDED_BY(mutex);
    unsigned int last GUARDED_BY(mutex) = 0;
};

LiveIds& liveIds()
{
    static LiveIds* const ids = new LiveIds;
    return *ids;
}

}  // namespace

TaskId::TaskId()
{
    LiveIds& live = liveIds();
    Lock lock(live.mutex);
    // After four thousand million tasks the numbers start again, past those still in use.
    do
    {
        ++live.last;
    } while (live.last == 0 || !live.ids.insert(live.last).second);
    value_ = live.last;
}

TaskId::~TaskId()
{
    LiveIds& live = liveIds();
    Lock lock(live.mutex);
    live.ids.erase(value_);
}

}  // namespace travex_ftp
