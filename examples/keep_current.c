/* Keeps the directory current: keep_current_c SERVERS USER OUTPUT_DIR CA_FILE
 * Enter checks now; the end of the input stops. One thread: the client's events and the keyboard
 * are two descriptors of one poll. */
#define _POSIX_C_SOURCE 200809L

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "corpdir_c.h"

static void show(const corpdir_event* event)
{
    if (event->kind == CORPDIR_EVENT_PROGRESS)
        return;
    printf("%s", corpdir_event_name(event->kind));
    if (*event->server != '\0')
        printf(" %s", event->server);
    if (*event->version != '\0')
        printf(" '%s'", event->version);
    if (*event->reason != '\0')
        printf(": %s", event->reason);
    printf("\n");
    fflush(stdout);
}

/* Takes the events that wait. */
static void take_events(corpdir_client* client)
{
    corpdir_event event = {0};
    event.size = sizeof event;
    while (corpdir_next_event(client, &event) == CORPDIR_OK)
        show(&event);
}

static void run(corpdir_client* client)
{
    struct pollfd ready[] = {{corpdir_event_fd(client), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    char input[64];
    while (poll(ready, 2, -1) > 0)
    {
        if (ready[0].revents != 0)
            take_events(client);
        if (ready[1].revents != 0)
        {
            if (read(STDIN_FILENO, input, sizeof input) <= 0)
                return;
            corpdir_check_now(client);
        }
    }
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
    if (code != CORPDIR_OK)
    {
        fprintf(stderr, "%s\n", corpdir_error_text(code));
        return 1;
    }
    code = corpdir_start(client, &request);
    if (code == CORPDIR_OK)
    {
        run(client);
    }
    else
    {
        char reason[512];
        corpdir_start_reason(client, reason, sizeof reason);
        fprintf(stderr, "%s\n", reason);
    }
    corpdir_close(client);
    return code == CORPDIR_OK ? 0 : 1;
}
