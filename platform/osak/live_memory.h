// Counts the layer's memory in use; for tests.
#ifndef OSAK_LIVE_MEMORY_H
#define OSAK_LIVE_MEMORY_H

#include <cstddef>

namespace osak
{
struct LiveMemory
{
    size_t blocks;
    size_t bytes;
};

// The blocks that were handed out and not released. Any thread; not in the child of a fork.
LiveMemory CountLiveMemory();

}  // namespace osak

#endif
