// operator new of the whole test program, which a test can make fail on its thread. Not part of
// builds with a sanitizer, which has its own.
#ifndef CORPDIR_TESTS_FAILING_NEW_H
#define CORPDIR_TESTS_FAILING_NEW_H

namespace support
{

// Allocations of this thread that succeed before one fails; below 0: none fails.
extern thread_local int t_allocationsLeft;

}  // namespace support

#endif
