/* Fetches the directory once over FTPS: fetch_directory_c SERVERS USER OUTPUT_DIR CA_FILE */
#define _POSIX_C_SOURCE 200809L

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "corpdir_c.h"

/* Runs on the library's thread. A pipe carries the news to the thread that waits. */
static void on_event(void* user, const corpdir_event* event)
{
    const int* news = user;
    if (event->kind == CORPDIR_EVENT_DELIVERED && write(*news, "", 1) != 1)
        perror("fetch_directory_c");
    else if (event->kind == CORPDIR_EVENT_FAILED || event->kind == CORPDIR_EVENT_REFUSED)
        fprintf(stderr, "%s: %s: %s\n", event->server, event->file, event->reason);
}

int main(int argc, char** argv)
{
    const char* password = getenv("CORPDIR_PASSWORD");
    const char* port = getenv("CORPDIR_PORT");
    int news[2];
    if (argc != 5 || password == NULL || pipe(news) != 0)
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
    request.on_event = on_event;
    request.user_data = &news[1];

    corpdir_client* client;
    corpdir_code code = corpdir_open(NULL, &client);
    if (code == CORPDIR_OK)
        code = corpdir_start(client, &request);
    if (code != CORPDIR_OK)
        fprintf(stderr, "%s\n", corpdir_error_text(code));

    struct pollfd delivered = {news[0], POLLIN, 0};
    int fetched = code == CORPDIR_OK && poll(&delivered, 1, 60 * 1000) == 1;
    corpdir_close(client);
    return fetched ? 0 : 1;
}
