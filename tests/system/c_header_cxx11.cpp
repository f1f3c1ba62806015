// Checks that corpdir_c.h is C++11, for c_header_test.c.
#include "corpdir_c.h"

extern "C"
{
    size_t cxx_size_of_request(void);
    size_t cxx_size_of_event(void);
    size_t cxx_size_of_log_settings(void);
    size_t cxx_size_of_code(void);
}

size_t cxx_size_of_request(void)
{
    return sizeof(corpdir_request);
}

size_t cxx_size_of_event(void)
{
    return sizeof(corpdir_event);
}

size_t cxx_size_of_log_settings(void)
{
    return sizeof(corpdir_log_settings);
}

size_t cxx_size_of_code(void)
{
    return sizeof(corpdir_code);
}
