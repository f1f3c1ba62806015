// libcurl's results in our codes and words.
#ifndef TRAVEX_FTP_CURL_ERRORS_H
#define TRAVEX_FTP_CURL_ERRORS_H

#include <curl/curl.h>

#include "tls_channel.h"
#include "transfer.h"

namespace travex_ftp
{
// How a transfer ended, as far as libcurl and the channels know.
struct Ending
{
    CURLcode result;
    const char* detail;  // libcurl's error text, may be empty
    CURL* easy;
    int socketError;  // why no socket could be made, 0: one was made
    bool loggedIn;
    const TlsChannel& control;
    const TlsChannel& data;
    const TlsPolicy& tls;
};

// Sets the failure of the transfer. The most telling cause comes first: a certificate that was not
// accepted, then what the server said, then how the channels ended, then libcurl's result, which is
// often a consequence ("timeout" for a 421).
void explain(const Ending& ending, Transfer& transfer);

}  // namespace travex_ftp

#endif
