// Diagnostics of the operating-system layer, for programs and tests; the service does not use them.
//
// Everything here may be called on any thread. Nothing throws.
#ifndef OSAK_DIAGNOSTICS_H
#define OSAK_DIAGNOSTICS_H

#include <stddef.h>

// What is live of the blocks that OSAK_MemMallocD and OSAK_MemMallocS handed out.
struct OSAK_MEM_USE
{
    size_t ulBlocks;
    size_t ulBytes;
};

// One place that requested blocks, and what is live of them. `file` is the pointer that a request
// gave; no lock is held.
typedef void (*OSAK_MEM_PLACE_PROC)(const char* file, unsigned int line, const OSAK_MEM_USE* use,
                                    void* user);

extern "C"
{
    // Reports live blocks: the sum into *total, and each place, ordered by file and line, to
    // `each`. Both may be null. OSAK_ERR_SYSTEM when memory ran out: nothing is reported then.
    unsigned int OSAK_MemReport(OSAK_MEM_USE* total, OSAK_MEM_PLACE_PROC each, void* user);

    // Writes that report to the log: nothing when no block is live, else the sum and the places at
    // level 1. The log calls it when it is closed.
    void OSAK_MemLogReport();

}  // extern "C"

#endif
