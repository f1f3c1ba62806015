/* Fetches the directory once over FTPS: fetch_directory_c SERVERS USER OUTPUT_DIR CA_FILE */
#define _POSIX_C_SOURCE 200809L

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>

#include "corpdir_c.h"

/* Takes the events that wait. Returns 0 when the directory is current, 1 when the check failed, -1
 * while it is under way. */
static int take_events(corpdir_client* client)
{
    corpdir_event event = {0};
    int status = -1;
    event.size = sizeof event;
    while (status < 0 && corpdir_next_event(client, &event) == CORPDIR_OK)
    {
        if (event.kind == CORPDIR_EVENT_DELIVERED || event.kind == CORPDIR_EVENT_UNCHANGED)
            status = 0;
        else if (event.kind == CORPDIR_EVENT_NO_SERVER_LEFT ||
                 event.kind == CORPDIR_EVENT_CHECK_FAILED)
            status = 1;
        else if (event.code != CORPDIR_OK)
            fprintf(stderr, "%s: %s\n", event.server, event.reason);
    }
    return status;
}

int main(int argc, char** argv)
{
    const char* password = getenv("CORPDIR_PASSWORD");
    const char* port = getenv("CORPDIR_PORT");
    if (argc != 5 || password == NULL)
        return 2;

    corpdir_request request = {0};
    request.size = sizeof request;
    request.servers = argv[1];
    request.port = port != NULL ? (uint32_t)strtoul(port, NULL, 10) : 0;
    request.user = argv[2];
    request.password = password;
    request.trust = argv[4];
    request.version_file = "version.txt";
    request.directory_file = "directory.csv";
    request.directory_dir = argv[3];

    corpdir_log_settings log = {0}; /* errors, to standard error */
    log.size = sizeof log;
    corpdir_client* client;
    corpdir_code code = corpdir_open(&log, &client);
    if (code == CORPDIR_OK)
        code = corpdir_start(client, &request);
    if (code != CORPDIR_OK)
    {
        char reason[512];
        const char* text = corpdir_start_reason(client, reason, sizeof reason) > 0
                               ? reason
                               : corpdir_error_text(code);
        fprintf(stderr, "%s\n", text);
    }

    struct pollfd ready = {corpdir_event_fd(client), POLLIN, 0};
    int status = -1;
    while (code == CORPDIR_OK && status < 0 && poll(&ready, 1, 60 * 1000) == 1)
        status = take_events(client);
    corpdir_close(client);
    return status == 0 ? 0 : 1;
}
