// Counts what the calling thread allocates, in the program and in every library.
#ifndef BENCH_ALLOCATIONS_H
#define BENCH_ALLOCATIONS_H

#include <cstddef>

namespace bench
{

struct Allocations
{
    std::size_t count = 0;
    std::size_t bytes = 0;
};

// By the calling thread since it began; a block that grows counts once more, with its new size.
Allocations AllocationsSoFar();

}  // namespace bench

#endif
