// A minimal download over plain FTP: one login, one RETR, a loop of recv and write, one flush. The
// FTP layer's figures are compared with those of this program.
//     bare_download PORT USER REMOTE LOCAL
// Password in CORPDIR_PASSWORD. Checks no size, and leaves an incomplete file after a failure.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{

constexpr size_t kBuffer = 524288;

int Connect(unsigned int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int made = socket(AF_INET, SOCK_STREAM, 0);
    if (made < 0 || connect(made, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    {
        std::perror("connect");
        std::exit(1);
    }
    return made;
}

// Reads one line of the control connection, which must begin with the code.
std::string Expect(int control, const char* code)
{
    std::string line;
    for (char byte = 0; byte != '\n' && recv(control, &byte, 1, 0) == 1;)
    {
        line += byte;
    }
    if (line.compare(0, 3, code) != 0)
    {
        std::fprintf(stderr, "%s expected: %s\n", code, line.c_str());
        std::exit(1);
    }
    return line;
}

std::string Ask(int control, const std::string& command, const char* code)
{
    const std::string line = command + "\r\n";
    (void)send(control, line.data(), line.size(), MSG_NOSIGNAL);
    return Expect(control, code);
}

}  // namespace

int main(int count, char** arguments)
{
    const char* const password = std::getenv("CORPDIR_PASSWORD");
    if (count != 5 || password == nullptr)
    {
        std::fprintf(stderr, "usage: CORPDIR_PASSWORD=... bare_download PORT USER REMOTE LOCAL\n");
        return 2;
    }
    const int control = Connect(static_cast<unsigned int>(std::atoi(arguments[1])));
    (void)Expect(control, "220");
    (void)Ask(control, std::string("USER ") + arguments[2], "331");
    (void)Ask(control, std::string("PASS ") + password, "230");
    (void)Ask(control, "TYPE I", "200");
    const std::string passive = Ask(control, "EPSV", "229");
    unsigned int port = 0;
    const size_t bars = passive.find("|||");
    if (bars == std::string::npos || std::sscanf(passive.c_str() + bars, "|||%u|", &port) != 1)
    {
        return 1;
    }
    const int data = Connect(port);
    (void)Ask(control, std::string("RETR ") + arguments[3], "150");
    const int file = open(arguments[4], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    std::vector<char> buffer(kBuffer);
    for (ssize_t got = 1; got > 0;)
    {
        got = recv(data, buffer.data(), buffer.size(), 0);
        if (got < 0 || write(file, buffer.data(), static_cast<size_t>(got)) != got)
        {
            std::perror("copy");
            return 1;
        }
    }
    (void)close(data);
    (void)Expect(control, "226");
    return fsync(file) == 0 && close(file) == 0 ? 0 : 1;
}
