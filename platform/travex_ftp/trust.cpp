#include "trust.h"

#include <dirent.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace travex_ftp
{
namespace
{
struct Freed
{
    void operator()(BIO* bio) const
    {
        BIO_free(bio);
    }
    void operator()(STACK_OF(X509_INFO) * infos) const
    {
        sk_X509_INFO_pop_free(infos, X509_INFO_free);
    }
    void operator()(EVP_MD_CTX* context) const
    {
        EVP_MD_CTX_free(context);
    }
    void operator()(DIR* directory) const
    {
        (void)closedir(directory);
    }
};

// A file of authorities is small; what is larger is not one, and is not read into memory.
constexpr off_t kLargestFile = 16777216;

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    for (size_t begin = 0; begin <= text.size();)
    {
        const size_t end = std::min(text.find(separator, begin), text.size());
        if (end != begin)
        {
            parts.push_back(text.substr(begin, end - begin));
        }
        begin = end + 1;
    }
    return parts;
}

bool parsePair(const std::string& pair, TrustText& trust, Failure& failure)
{
    const size_t equals = pair.find('=');
    const std::string key = pair.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : pair.substr(equals + 1);
    if (key == "ca" && !value.empty())
    {
        trust.authorities = value;
    }
    else if (key == "name" && !value.empty())
    {
        trust.names = split(value, ',');
    }
    else if (key == "tls" && value == "implicit")
    {
        trust.implicit = true;
    }
    else
    {
        return fail(failure, TRAVEX_FTP_ERR_TRUST, "trust text: \"%s\" is not understood",
                    pair.c_str());
    }
    return true;
}

// Collects anchors into a store and into a digest.
class Loader
{
public:
    Loader() : store_(X509_STORE_new(), X509_STORE_free), digest_(EVP_MD_CTX_new()) {}

    bool ready()
    {
        return store_ && digest_ && EVP_DigestInit_ex(digest_.get(), EVP_sha256(), nullptr) == 1 &&
               // As in curl: any certificate of the trust text is an anchor, an intermediate one
               // and a server's own included.
               X509_STORE_set_flags(store_.get(), X509_V_FLAG_PARTIAL_CHAIN) == 1;
    }

    bool useSystem()
    {
        return X509_STORE_set_default_paths(store_.get()) == 1;
    }

    // Takes what the file holds; a file without PEM text holds nothing. False with errno set when
    // it cannot be read.
    bool addFile(const std::string& path)
    {
        const std::unique_ptr<BIO, Freed> file(BIO_new_file(path.c_str(), "re"));
        if (!file)
        {
            return false;
        }
        const std::unique_ptr<STACK_OF(X509_INFO), Freed> infos(
            PEM_X509_INFO_read_bio(file.get(), nullptr, refusePassphrase, nullptr));
        for (int i = 0; infos && i < sk_X509_INFO_num(infos.get()); ++i)
        {
            add(*sk_X509_INFO_value(infos.get(), i));
        }
        return true;
    }

    bool finish(Anchors& anchors)
    {
        if (lists_ != 0)
        {
            X509_STORE_set_flags(store_.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
        }
        anchors.store = store_;
        return EVP_DigestFinal_ex(digest_.get(), anchors.digest.data(), nullptr) == 1;
    }

    unsigned int certificates() const
    {
        return certificates_;
    }

private:
    // A private key that shares the file is skipped, not asked about on the terminal.
    static int refusePassphrase(char*, int, int, void*)
    {
        return -1;
    }

    void add(const X509_INFO& info)
    {
        unsigned char hash[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (info.x509 != nullptr && X509_STORE_add_cert(store_.get(), info.x509) == 1 &&
            X509_digest(info.x509, EVP_sha256(), hash, &length) == 1)
        {
            ++certificates_;
            (void)EVP_DigestUpdate(digest_.get(), hash, length);
        }
        if (info.crl != nullptr && X509_STORE_add_crl(store_.get(), info.crl) == 1 &&
            X509_CRL_digest(info.crl, EVP_sha256(), hash, &length) == 1)
        {
            ++lists_;
            (void)EVP_DigestUpdate(digest_.get(), hash, length);
        }
    }

    std::shared_ptr<X509_STORE> store_;
    std::unique_ptr<EVP_MD_CTX, Freed> digest_;
    unsigned int certificates_ = 0;
    unsigned int lists_ = 0;
};

// Regular files of a directory in the order of their names, so that the digest does not depend on
// the directory's own order.
bool listFiles(const std::string& path, std::vector<std::string>& files)
{
    const std::unique_ptr<DIR, Freed> directory(opendir(path.c_str()));
    if (!directory)
    {
        return false;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this thread's own.
    while (const dirent* entry = readdir(directory.get()))
    {
        struct stat status = {};
        const std::string file = path + "/" + entry->d_name;
        if (stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
            status.st_size <= kLargestFile)
        {
            files.push_back(file);
        }
    }
    std::sort(files.begin(), files.end());
    return true;
}

// The files that an authorities path stands for.
bool expand(const std::string& path, std::vector<std::string>& files, Failure& failure)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
    {
        return fail(failure, TRAVEX_FTP_ERR_TRUST, "trust text: %s: %s", path.c_str(),
                    systemError(errno));
    }
    if (S_ISDIR(status.st_mode))
    {
        return listFiles(path, files) || fail(failure, TRAVEX_FTP_ERR_TRUST, "trust text: %s: %s",
                                              path.c_str(), systemError(errno));
    }
    if (!S_ISREG(status.st_mode) || status.st_size > kLargestFile)
    {
        return fail(failure, TRAVEX_FTP_ERR_TRUST, "trust text: %s is no file of certificates",
                    path.c_str());
    }
    files.push_back(path);
    return true;
}

bool loadFiles(const std::string& path, Loader& loader, Failure& failure)
{
    std::vector<std::string> files;
    if (!expand(path, files, failure))
    {
        return false;
    }
    for (const std::string& file : files)
    {
        if (!loader.addFile(file))
        {
            return fail(failure, TRAVEX_FTP_ERR_TRUST, "trust text: %s: %s", file.c_str(),
                        systemError(errno));
        }
    }
    if (loader.certificates() == 0)
    {
        return fail(failure, TRAVEX_FTP_ERR_TRUST, "trust text: %s holds no certificate",
                    path.c_str());
    }
    return true;
}

}  // namespace

bool parseTrustText(const char* text, TrustText& trust, Failure& failure)
{
    if (text == nullptr || *text == '\0')
    {
        return fail(failure, TRAVEX_FTP_ERR_TRUST, "trust text: it is empty");
    }
    const std::string whole = text;
    // A path may hold "=" too, but only behind a "/".
    const size_t equals = whole.find('=');
    if (equals == std::string::npos || whole.find('/') < equals)
    {
        trust.authorities = whole;
        return true;
    }
    for (const std::string& pair : split(whole, ';'))
    {
        if (!parsePair(pair, trust, failure))
        {
            return false;
        }
    }
    return true;
}

bool loadAnchors(const std::string& authorities, Anchors& anchors, Failure& failure)
{
    Loader loader;
    if (!loader.ready())
    {
        return failSystem(failure, "trust store");
    }
    if (authorities == "system")
    {
        return (loader.useSystem() && loader.finish(anchors)) ||
               failSystem(failure, "the system's trust store");
    }
    return loadFiles(authorities, loader, failure) &&
           (loader.finish(anchors) || failSystem(failure, "trust store"));
}

}  // namespace travex_ftp
