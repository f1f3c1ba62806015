#include "task.h"

#include <unordered_set>

#include "base/mutex.h"

namespace travex_ftp
{
namespace
{
// Ids of live tasks, of all runs of the layer. Never destroyed: a task may outlive static objects.
struct LiveIds
{
    base::Mutex mutex;
    std::unordered_set<unsigned int> ids CORPDIR_GUARDED_BY(mutex);
    unsigned int last CORPDIR_GUARDED_BY(mutex) = 0;
};

LiveIds& TheIds()
{
    static LiveIds* const ids = new LiveIds;
    return *ids;
}

}  // namespace

TaskId::TaskId()
{
    LiveIds& live = TheIds();
    const base::MutexLock lock(live.mutex);
    // After four thousand million tasks the numbers start again, past those still in use.
    do
    {
        ++live.last;
    } while (live.last == 0 || !live.ids.insert(live.last).second);
    m_value = live.last;
}

TaskId::~TaskId()
{
    LiveIds& live = TheIds();
    const base::MutexLock lock(live.mutex);
    live.ids.erase(m_value);
}

}  // namespace travex_ftp
