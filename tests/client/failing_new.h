// operator new of the whole test program, which a test can make fail on its thread. Not part of
// builds with a sanitizer, which has its own.
#ifndef CORPDIR_TESTS_FAILING_NEW_H
#define CORPDIR_TESTS_FAILING_NEW_H

namespace failing_new
{

extern thread_local bool t_fails;

}  // namespace failing_new

#endif
