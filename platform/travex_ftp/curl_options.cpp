#include "curl_options.h"

namespace travex_ftp
{
namespace
{
// Sets options one after the other and remembers the first failure, which is lack of memory.
class Options
{
public:
    explicit Options(CURL* easy) : easy_(easy) {}

    template <typename Value>
    void set(CURLoption option, Value value)
    {
        if (result_ == CURLE_OK)
        {
            result_ = curl_easy_setopt(easy_, option, value);
        }
    }

    CURLcode result() const
    {
        return result_;
    }

private:
    CURL* const easy_;
    CURLcode result_ = CURLE_OK;
};

// Encodes all but what never has a meaning in a URL, ";type=" included; the leading "/" as well, by
// which libcurl knows an absolute path.
std::string encodePath(const std::string& path)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : path)
    {
        const unsigned char byte = static_cast<unsigned char>(c);
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        const bool digit = c >= '0' && c <= '9';
        if (letter || digit || c == '-' || c == '_' || c == '.' || (c == '/' && !encoded.empty()))
        {
            encoded += c;
        }
        else
        {
            encoded.append({'%', kDigits[byte >> 4], kDigits[byte & 15]});
        }
    }
    return encoded;
}

CurlUrl makeUrl(const Settings& settings, const std::string& path)
{
    CurlUrl url(curl_url());
    const bool brackets = settings.server.length == 16;
    const std::string host =
        brackets ? "[" + settings.server.literal + "]" : settings.server.literal;
    const bool implicit = settings.tls.encrypted && settings.tls.implicit;
    const bool made =
        url &&
        curl_url_set(url.get(), CURLUPART_SCHEME, implicit ? "ftps" : "ftp", 0) == CURLUE_OK &&
        curl_url_set(url.get(), CURLUPART_HOST, host.c_str(), 0) == CURLUE_OK &&
        curl_url_set(url.get(), CURLUPART_PORT, std::to_string(settings.port).c_str(), 0) ==
            CURLUE_OK &&
        curl_url_set(url.get(), CURLUPART_PATH, ("/" + path).c_str(), 0) == CURLUE_OK;
    return made ? std::move(url) : nullptr;
}

void setTls(Options& options, const TlsPolicy& tls)
{
    if (!tls.encrypted)
    {
        options.set(CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_NONE));
        return;
    }
    // ALL for implicit TLS as well: with less, a refused PROT leaves the data channel in clear.
    options.set(CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
    options.set(CURLOPT_FTPSSLAUTH, static_cast<long>(CURLFTPAUTH_TLS));
    options.set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    // Certificates are checked by TlsChannel, names and reasons included.
    options.set(CURLOPT_SSL_VERIFYPEER, 0L);
    options.set(CURLOPT_SSL_VERIFYHOST, 0L);
    options.set(CURLOPT_CAINFO, static_cast<const char*>(nullptr));
    options.set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
}

}  // namespace

const char* libraries()
{
    return curl_version();
}

CURLcode setConnectionOptions(CURL* easy, const Settings& settings, const Limits& limits,
                              unsigned int number)
{
    Options options(easy);
    options.set(CURLOPT_NOSIGNAL, 1L);
    // Proxies and credentials of the environment are none of ours.
    options.set(CURLOPT_PROXY, "");
    options.set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
    options.set(CURLOPT_PROTOCOLS_STR, "ftp,ftps");
    options.set(CURLOPT_USERNAME, settings.user.c_str());
    options.set(CURLOPT_PASSWORD, Clear(settings.password).text());
    // FTP has no use for this text, but libcurl compares it before it reuses a connection: thereby
    // each handle finds the one connection that it made, with the TLS sessions that belong to it.
    options.set(CURLOPT_SASL_AUTHZID, std::to_string(number).c_str());
    if (!settings.local.zero())
    {
        // "host!" keeps it from being taken for a name, which would be resolved in a blocking call.
        options.set(CURLOPT_INTERFACE, ("host!" + settings.local.literal).c_str());
    }
    setTls(options, settings.tls);
    options.set(CURLOPT_FTP_FILEMETHOD, static_cast<long>(CURLFTPMETHOD_NOCWD));
    options.set(CURLOPT_FTP_USE_EPSV, 1L);
    options.set(CURLOPT_FTP_SKIP_PASV_IP, 1L);
    options.set(CURLOPT_PATH_AS_IS, 1L);
    options.set(CURLOPT_TCP_KEEPALIVE, 1L);
    options.set(CURLOPT_TCP_KEEPIDLE, 45L);
    options.set(CURLOPT_TCP_KEEPINTVL, 15L);
    options.set(CURLOPT_BUFFERSIZE, kReceiveBuffer);
    // The limits are kept by Transfer, which knows what is being waited for; this lies beyond.
    options.set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits.transfer.count()));
    return options.result();
}

CURLcode setDownload(CURL* easy, const Settings& settings, const std::string& serverFile,
                     FileRequest& request)
{
    request.url = makeUrl(settings, encodePath(serverFile));
    // The size is asked for by us, and its refusal ("*") is not the end: libcurl would stop reading
    // at the size it knows, and never see that a file has grown or how its data channel ends.
    request.commands.reset(curl_slist_append(nullptr, ("*SIZE " + serverFile).c_str()));
    if (!request.url || !request.commands)
    {
        return CURLE_OUT_OF_MEMORY;
    }
    Options options(easy);
    options.set(CURLOPT_CURLU, request.url.get());
    options.set(CURLOPT_PREQUOTE, request.commands.get());
    options.set(CURLOPT_IGNORE_CONTENT_LENGTH, 1L);
    return options.result();
}

CURLcode setReplyLimit(CURL* easy, milliseconds limit)
{
    // Whole seconds are all that libcurl 7.88 knows; 0 would mean its default.
    const long seconds = static_cast<long>((limit.count() + 999) / 1000);
    return curl_easy_setopt(easy, CURLOPT_SERVER_RESPONSE_TIMEOUT, seconds);
}

CURLcode setFarewell(CURL* easy, const Settings& settings, FileRequest& request)
{
    // QUIT is the first thing that it does: libcurl 7.88 must not read from a connection before it
    // has sent something on it. What the server said unasked would be taken for the rest of a line
    // of the transfer before, whose buffer is gone.
    request.commands.reset(curl_slist_append(nullptr, "QUIT"));
    request.url = makeUrl(settings, "");
    if (!request.url || !request.commands)
    {
        return CURLE_OUT_OF_MEMORY;
    }
    Options options(easy);
    options.set(CURLOPT_CURLU, request.url.get());
    options.set(CURLOPT_QUOTE, request.commands.get());
    options.set(CURLOPT_PREQUOTE, static_cast<curl_slist*>(nullptr));
    options.set(CURLOPT_NOBODY, 1L);
    options.set(CURLOPT_FORBID_REUSE, 1L);
    return options.result();
}

}  // namespace travex_ftp
