// Stands before the timer of the program under test: ten minutes are a fifth of a second.
#include "osak.h"

extern "C"
{
    unsigned int __real_OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int ms, void* param);
    unsigned int __wrap_OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int ms, void* param);

    unsigned int __wrap_OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int ms, void* param)
    {
        return __real_OSAK_StartRelTimer(timer, ms / 3000, param);
    }
}
