// Keeps the directory current: keep_current SERVERS USER OUTPUT_DIR CA_FILE
// Enter checks now; the end of the input stops.
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "corpdir.hpp"

// Runs on the client's thread.
static void Show(const corpdir::Event& event)
{
    if (event.kind == corpdir::Event::Kind::kProgress)
        return;
    std::cout << corpdir::Name(event.kind);
    if (!event.server.empty())
        std::cout << " " << event.server;
    if (!event.version.empty())
        std::cout << " '" << event.version << "'";
    if (!event.reason.empty())
        std::cout << ": " << event.reason;
    std::cout << std::endl;
}

int main(int argc, char** argv)
{
    const char* password = std::getenv("CORPDIR_PASSWORD");
    const char* port = std::getenv("CORPDIR_PORT");
    if (argc != 5 || password == nullptr)
        return 2;

    corpdir::Request request;
    std::istringstream servers(argv[1]);
    for (std::string server; std::getline(servers, server, ';');)
        request.servers.push_back(server);
    request.port = port == nullptr ? 0 : static_cast<std::uint16_t>(std::atoi(port));
    request.user = argv[2];
    request.password = password;
    request.trust = corpdir::Trust::Authorities(argv[4]);
    request.versionFile = "version.txt";
    request.directoryFile = "directory.csv";
    request.directoryDir = argv[3];
    request.onEvent = Show;
    try
    {
        corpdir::Client client;
        client.Start(request);
        for (std::string line; std::getline(std::cin, line);)
            client.CheckNow();
    }
    catch (const corpdir::Error& error)
    {
        std::cerr << error.what() << std::endl;
        return 1;
    }
    return 0;
}
