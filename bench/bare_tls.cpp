// A minimal download over explicit FTPS: one login, one RETR, a loop of SSL_read and write, one
// flush; TLS 1.3, the data channel resumes the control channel's session. The FTP layer's figures
// are compared with those of this program.
//     bare_tls PORT USER REMOTE LOCAL CA_FILE
// Password in CORPDIR_PASSWORD. Checks the chain but no size and no name, and leaves an incomplete
// file after a failure.
#include <fcntl.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{
constexpr int kBuffer = 524288;  // that of bare_download

void Require(bool holds, const std::string& what)
{
    if (!holds)
    {
        std::fprintf(stderr, "bare_tls: %s\n", what.c_str());
        std::exit(1);
    }
}

BIO* Connect(const std::string& port)
{
    BIO* const made = BIO_new_connect(("127.0.0.1:" + port).c_str());
    Require(BIO_do_connect(made) == 1, "no connection");
    return made;
}

SSL* Secure(SSL_CTX* context, BIO* socket, SSL_SESSION* session)
{
    SSL* const made = SSL_new(context);
    SSL_set_bio(made, socket, socket);
    Require(session == nullptr || SSL_set_session(made, session) == 1, "no session");
    Require(SSL_connect(made) == 1 && SSL_session_reused(made) == (session != nullptr), "no TLS");
    return made;
}

// Sends a line, if it is not empty, and returns the reply, one line that begins with the code.
std::string Ask(BIO* control, const std::string& line, const char* code)
{
    Require(line.empty() || BIO_puts(control, (line + "\r\n").c_str()) > 0, "cannot send");
    std::string reply;
    for (char byte = 0; byte != '\n' && BIO_read(control, &byte, 1) == 1;)
    {
        reply += byte;
    }
    Require(reply.compare(0, 3, code) == 0, line.substr(0, 4) + ": " + reply);
    return reply;
}

void Receive(SSL* data, int file)
{
    std::vector<char> buffer(kBuffer);
    for (int got = 1; got > 0;)
    {
        int held = 0;
        while (held != kBuffer && (got = SSL_read(data, &buffer[held], kBuffer - held)) > 0)
        {
            held += got;
        }
        Require(write(file, buffer.data(), held) == held, "cannot write");
    }
    Require(SSL_get_shutdown(data) == SSL_RECEIVED_SHUTDOWN, "no close_notify");
}
}  // namespace

int main(int count, char** arguments)
{
    const char* const password = std::getenv("CORPDIR_PASSWORD");
    Require(count == 6 && password != nullptr, "PORT USER REMOTE LOCAL CA_FILE, CORPDIR_PASSWORD");
    SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    Require(SSL_CTX_load_verify_file(context, arguments[5]) == 1, "CA_FILE");
    BIO* control = Connect(arguments[1]);
    Ask(control, "", "220");
    Ask(control, "AUTH TLS", "234");
    SSL* const tls = Secure(context, control, nullptr);
    control = BIO_new(BIO_f_ssl());
    BIO_set_ssl(control, tls, BIO_CLOSE);
    Ask(control, std::string("USER ") + arguments[2], "331");
    Ask(control, std::string("PASS ") + password, "230");
    Ask(control, "PBSZ 0", "200");
    Ask(control, "PROT P", "200");
    Ask(control, "TYPE I", "200");
    const std::string passive = Ask(control, "EPSV", "229");
    const size_t port = passive.find("|||") + 3;
    BIO* const socket = Connect(passive.substr(port, passive.find('|', port) - port));
    Ask(control, std::string("RETR ") + arguments[3], "150");
    SSL* const data = Secure(context, socket, SSL_get1_session(tls));
    const int file = open(arguments[4], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    Receive(data, file);
    SSL_shutdown(data);
    SSL_free(data);
    Ask(control, "", "226");
    return fsync(file) == 0 && close(file) == 0 ? 0 : 1;
}
