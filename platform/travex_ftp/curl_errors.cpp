#include "curl_errors.h"

#include <cstring>
#include <initializer_list>

namespace travex_ftp
{
namespace
{
bool oneOf(const char* verb, std::initializer_list<const char*> verbs)
{
    for (const char* candidate : verbs)
    {
        if (strcmp(verb, candidate) == 0)
        {
            return true;
        }
    }
    return false;
}

const char* wordsOf(const Ending& ending)
{
    return *ending.detail != '\0' ? ending.detail : curl_easy_strerror(ending.result);
}

// The server refused a step, or the whole service.
bool explainReply(const Replies& replies, Failure& failure)
{
    const unsigned int code = replies.code();
    const char* const verb = replies.verb();
    const char* const text = replies.text();
    if (!replies.refused())
    {
        return false;
    }
    // libcurl calls it a timeout.
    if (code == Replies::kServiceEnds)
    {
        (void)fail(failure, TRAVEX_FTP_ERR_CONNECT, "the server ends the service: %u %s", code,
                   text);
    }
    else if (*verb == '\0')
    {
        (void)fail(failure, TRAVEX_FTP_ERR_CONNECT, "the server is not ready: %u %s", code, text);
    }
    else if (replies.opened())
    {
        (void)fail(failure, TRAVEX_FTP_ERR_PARTIAL, "the server broke off: %u %s", code, text);
    }
    else if (oneOf(verb, {"USER", "PASS", "ACCT"}))
    {
        (void)fail(failure, TRAVEX_FTP_ERR_LOGIN, "login refused: %u %s", code, text);
    }
    else
    {
        const unsigned int ret = oneOf(verb, {"AUTH", "PBSZ", "PROT"}) ? TRAVEX_FTP_ERR_TLS
                                 : oneOf(verb, {"RETR"})               ? TRAVEX_FTP_ERR_FILE
                                                                       : TRAVEX_FTP_ERR_REPLY;
        (void)fail(failure, ret, "%s refused: %u %s", verb, code, text);
    }
    return true;
}

// A channel's own finding, or a handshake that did not come to its end.
bool explainTls(const Ending& ending, const Replies& replies, Failure& failure)
{
    for (const TlsChannel* channel : {&ending.control, &ending.data})
    {
        if (failed(channel->failure()))
        {
            failure = channel->failure();
            return true;
        }
    }
    if (!ending.tls.encrypted)
    {
        return false;
    }
    const bool shaking = ending.control.shaking() || (ending.data.shaking() && replies.opened());
    if (shaking || ending.result == CURLE_SSL_CONNECT_ERROR ||
        ending.result == CURLE_USE_SSL_FAILED || ending.result == CURLE_PEER_FAILED_VERIFICATION)
    {
        (void)fail(failure, TRAVEX_FTP_ERR_TLS, "%sTLS failed: %s",
                   ending.loggedIn ? "data channel: " : "", wordsOf(ending));
        return true;
    }
    if (replies.opened() && !ending.data.established())
    {
        (void)fail(failure, TRAVEX_FTP_ERR_TLS, "the data channel is not encrypted");
        return true;
    }
    // The peer's end of the file, as opposed to the network's or an attacker's.
    if (replies.opened() && !ending.data.closed())
    {
        (void)fail(failure, TRAVEX_FTP_ERR_PARTIAL,
                   "the data channel ended without close_notify: the file may be cut off");
        return true;
    }
    return false;
}

// The system says why, unless it was libcurl that lost patience.
void explainConnect(const Ending& ending, Failure& failure)
{
    long number = ending.socketError;
    if (number == 0)
    {
        (void)curl_easy_getinfo(ending.easy, CURLINFO_OS_ERRNO, &number);
    }
    const bool late = ending.result == CURLE_OPERATION_TIMEDOUT || number == 0;
    (void)fail(failure, TRAVEX_FTP_ERR_CONNECT, "no %sconnection: %s",
               ending.loggedIn ? "data " : "",
               late ? wordsOf(ending) : systemError(static_cast<int>(number)));
}

// The control or the data connection broke without a word.
void explainLoss(const Ending& ending, const Replies& replies, Failure& failure)
{
    // A line without an end; libcurl collects so much of it and no more.
    if (strncmp(ending.detail, "Too large response", 18) == 0)
    {
        (void)fail(failure, TRAVEX_FTP_ERR_REPLY, "the server says too much: %s", ending.detail);
        return;
    }
    const bool closed = strncmp(ending.detail, "response reading failed", 23) == 0;
    (void)fail(failure, replies.opened() ? TRAVEX_FTP_ERR_PARTIAL : TRAVEX_FTP_ERR_TRANSFER,
               "connection lost at %s: %s", replies.step(),
               closed ? "closed by the server" : wordsOf(ending));
}

// What is left when neither server nor TLS has said anything.
void explainResult(const Ending& ending, const Transfer& transfer, Failure& failure)
{
    const Replies& replies = transfer.replies();
    // On IPv6 there is no PASV to fall back on, and libcurl blames the answer to EPSV.
    if (transfer.connectingData())
    {
        return explainConnect(ending, failure);
    }
    switch (ending.result)
    {
        case CURLE_COULDNT_CONNECT:
        case CURLE_INTERFACE_FAILED:
            return explainConnect(ending, failure);
        case CURLE_OUT_OF_MEMORY:
            (void)failSystem(failure, "transfer");
            return;
        case CURLE_OPERATION_TIMEDOUT:
            (void)fail(failure, TRAVEX_FTP_ERR_TIMEOUT, "%s: %s",
                       replies.opened() ? "the end of the file was not confirmed" : replies.step(),
                       wordsOf(ending));
            return;
        case CURLE_FTP_COULDNT_RETR_FILE:  // without a refusal: a reply that has no place there
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_FTP_WEIRD_PASS_REPLY:
        case CURLE_FTP_WEIRD_PASV_REPLY:
        case CURLE_FTP_WEIRD_227_FORMAT:
            (void)fail(failure, TRAVEX_FTP_ERR_REPLY, "unexpected answer to %s: %u %s",
                       *replies.verb() != '\0' ? replies.verb() : "the connection", replies.code(),
                       replies.text());
            return;
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
            return explainLoss(ending, replies, failure);
        default:
            (void)fail(failure, TRAVEX_FTP_ERR_TRANSFER, "%s", wordsOf(ending));
            return;
    }
}

}  // namespace

void explain(const Ending& ending, Transfer& transfer)
{
    Failure& failure = transfer.failure();
    const Replies& replies = transfer.replies();
    if (failed(ending.control.failure()) || failed(ending.data.failure()))
    {
        (void)explainTls(ending, replies, failure);
    }
    else if (!explainReply(replies, failure) && !explainTls(ending, replies, failure))
    {
        explainResult(ending, transfer, failure);
    }
}

}  // namespace travex_ftp
