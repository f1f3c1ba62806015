// Control records in libcurl's terms.
#ifndef TRAVEX_FTP_CURL_OPTIONS_H
#define TRAVEX_FTP_CURL_OPTIONS_H

#include <curl/curl.h>

#include <memory>
#include <string>

#include "limits.h"
#include "settings.h"

namespace travex_ftp
{
struct CurlFreed
{
    void operator()(CURL* easy) const
    {
        curl_easy_cleanup(easy);
    }
    void operator()(CURLU* url) const
    {
        curl_url_cleanup(url);
    }
    void operator()(curl_slist* list) const
    {
        curl_slist_free_all(list);
    }
};
using CurlUrl = std::unique_ptr<CURLU, CurlFreed>;
using CurlList = std::unique_ptr<curl_slist, CurlFreed>;

// What one file needs: both must outlive the transfer.
struct FileRequest
{
    CurlUrl url;
    CurlList commands;
};

// Names and versions of libcurl and of the libraries that it uses.
const char* libraries();

// Sets what holds for the life of a control connection. `number` is unique among connections:
// libcurl gives a connection from its pool only to the handle that made it. Throws std::bad_alloc.
CURLcode setConnectionOptions(CURL* easy, const Settings& settings, const Limits& limits,
                              unsigned int number);

// Sets what one download needs. A server file with a leading "/" is absolute, any other one is
// relative to the login directory. Throws std::bad_alloc.
CURLcode setDownload(CURL* easy, const Settings& settings, const std::string& serverFile,
                     FileRequest& request);

// Sets how long libcurl may wait for one reply, in a blocking call too. May be called in a
// callback.
CURLcode setReplyLimit(CURL* easy, milliseconds limit);

// Sets up an empty transfer that ends the control connection with a QUIT. Throws std::bad_alloc.
CURLcode setFarewell(CURL* easy, const Settings& settings, FileRequest& request);

}  // namespace travex_ftp

#endif
