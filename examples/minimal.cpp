#include <iostream>

#include "corpdir.hpp"

int main()
{
    corpdir::Request request;
    request.servers = {"ftp1.example.com", "ftp2.example.com"};
    request.user = "directory";
    request.password = "secret";
    request.versionFile = "version.txt";
    request.directoryFile = "directory.csv";
    request.directoryDir = "/var/lib/directory";
    request.onEvent = [](const corpdir::Event& event)
    {
        if (event.kind == corpdir::Event::Kind::kDelivered)
            std::cout << event.path << ": version " << event.version << std::endl;
        else if (event.code != corpdir::Code::kOk)
            std::cerr << event.server << ": " << event.reason << std::endl;
    };

    corpdir::Client client;
    client.Start(request);  // first check now, then every ten minutes
    std::cin.get();
}
