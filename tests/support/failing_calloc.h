// Lack of memory for a block of the OS layer. The linker leads calloc here (--wrap=calloc).
#ifndef CORPDIR_SUPPORT_FAILING_CALLOC_H
#define CORPDIR_SUPPORT_FAILING_CALLOC_H

namespace support
{
// Makes the nth call from now on fail, once: 1 is the next one; 0: none will. Thread-safe.
void FailCalloc(unsigned int nth);

}  // namespace support

#endif
