/* That corpdir_c.h is C99, and means the same to C and to C++. */
#include "corpdir_c.h"

#include <stdio.h>
#include <string.h>

/* What the header means to C++11: c_header_cxx11.cpp. */
size_t cxx_size_of_request(void);
size_t cxx_size_of_event(void);
size_t cxx_size_of_log_settings(void);
size_t cxx_size_of_code(void);

static int failures = 0;

static void expect(int holds, const char* what)
{
    if (!holds)
    {
        fprintf(stderr, "does not hold: %s\n", what);
        ++failures;
    }
}

int main(void)
{
    corpdir_client* client = NULL;
    corpdir_log_settings log = {0};
    corpdir_request request = {0};
    expect(sizeof request == cxx_size_of_request(), "one size of requests");
    expect(sizeof(corpdir_event) == cxx_size_of_event(), "one size of events");
    expect(sizeof log == cxx_size_of_log_settings(), "one size of log settings");
    expect(sizeof(corpdir_code) == cxx_size_of_code(), "one size of codes");

    expect(strlen(corpdir_version()) > 0, "the library has a version");
    log.size = sizeof log;
    expect(corpdir_open(&log, &client) == CORPDIR_OK, "it opens");
    expect(corpdir_start(client, &request) == CORPDIR_ERR_ARGUMENT, "it checks the record");
    expect(corpdir_add_cipher(client, 0x1302) == CORPDIR_OK, "it takes a suite");
    corpdir_close(client);
    return failures == 0 ? 0 : 1;
}
