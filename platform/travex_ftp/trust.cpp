#include "trust.h"

#include <openssl/pem.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "openssl_ptr.h"

namespace travex_ftp
{
namespace
{
// Bounds the memory that a wrong path can cost.
constexpr off_t kLargestFile = 16777216;

// Fails because of a file or directory.
bool Refuse(Failure& failure, const std::string& path, const char* reason)
{
    return Fail(failure, TRAVEX_FTP_ERR_TRUST, "trusted certificates: %s: %s", path.c_str(),
                reason);
}

bool ReadError(BIO* file)
{
    FILE* stream = nullptr;
    return BIO_get_fp(file, &stream) == 1 && ferror(stream) != 0;
}

std::vector<std::string> Split(const std::string& text, char separator)
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

bool ParsePair(const std::string& pair, TrustSettings& trust, Failure& failure)
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
        trust.names = Split(value, ',');
    }
    else if (key == "tls" && value == "implicit")
    {
        trust.implicit = true;
    }
    else
    {
        return Fail(failure, TRAVEX_FTP_ERR_TRUST, "trusted certificates: invalid entry \"%s\"",
                    pair.c_str());
    }
    return true;
}

// Collects trust anchors and revocation lists in a store, and their digest.
class Loader
{
public:
    Loader() : m_store(X509_STORE_new(), X509_STORE_free), m_digest(EVP_MD_CTX_new()) {}

    bool Ready()
    {
        return m_store && m_digest &&
               EVP_DigestInit_ex(m_digest.get(), EVP_sha256(), nullptr) == 1 &&
               // Every loaded certificate is an anchor, also an intermediate authority's
               // or a server's own.
               X509_STORE_set_flags(m_store.get(), X509_V_FLAG_PARTIAL_CHAIN) == 1;
    }

    bool UseSystem()
    {
        return X509_STORE_set_default_paths(m_store.get()) == 1;
    }

    // Adds the certificates and lists of a file; a file without PEM blocks adds none.
    bool AddFile(const std::string& path, Failure& failure)
    {
        const OpensslPtr<BIO> file(BIO_new_file(path.c_str(), "re"));
        if (!file)
        {
            return Refuse(failure, path, SystemError(errno));
        }
        const OpensslPtr<STACK_OF(X509_INFO)> infos(
            PEM_X509_INFO_read_bio(file.get(), nullptr, RefusePassphrase, nullptr));
        // OpenSSL treats a read error as the end of the file.
        if (ReadError(file.get()))
        {
            return Refuse(failure, path, "read error");
        }
        if (!infos)
        {
            return Refuse(failure, path, "malformed PEM block");
        }
        for (int i = 0; i < sk_X509_INFO_num(infos.get()); ++i)
        {
            if (!Add(*sk_X509_INFO_value(infos.get(), i)))
            {
                return Refuse(failure, path, "rejected by OpenSSL");
            }
        }
        return true;
    }

    bool Finish(TrustAnchors& anchors)
    {
        if (m_lists != 0)
        {
            X509_STORE_set_flags(m_store.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
        }
        anchors.store = m_store;
        return EVP_DigestFinal_ex(m_digest.get(), anchors.digest.data(), nullptr) == 1;
    }

    unsigned int Certificates() const
    {
        return m_certificates;
    }

private:
    // Skips an encrypted private key in the file instead of prompting on the terminal.
    static int RefusePassphrase(char*, int, int, void*)
    {
        return -1;
    }

    // A duplicate is not an error.
    bool Add(const X509_INFO& info)
    {
        unsigned char hash[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        const bool added =
            info.x509 == nullptr || (X509_STORE_add_cert(m_store.get(), info.x509) == 1 &&
                                     X509_digest(info.x509, EVP_sha256(), hash, &length) == 1 &&
                                     EVP_DigestUpdate(m_digest.get(), hash, length) == 1);
        const bool listAdded =
            info.crl == nullptr || (X509_STORE_add_crl(m_store.get(), info.crl) == 1 &&
                                    X509_CRL_digest(info.crl, EVP_sha256(), hash, &length) == 1 &&
                                    EVP_DigestUpdate(m_digest.get(), hash, length) == 1);
        m_certificates += info.x509 != nullptr ? 1 : 0;
        m_lists += info.crl != nullptr ? 1 : 0;
        return added && listAdded;
    }

    std::shared_ptr<X509_STORE> m_store;
    OpensslPtr<EVP_MD_CTX> m_digest;
    unsigned int m_certificates = 0;
    unsigned int m_lists = 0;
};

// Adds a path if it is a regular file. A file that has vanished and a dangling link are ignored.
bool ListFile(const std::string& path, std::vector<std::string>& files, Failure& failure)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
    {
        return errno == ENOENT || Refuse(failure, path, SystemError(errno));
    }
    if (!S_ISREG(status.st_mode))
    {
        return true;
    }
    if (status.st_size > kLargestFile)
    {
        return Refuse(failure, path, "file too large");
    }
    files.push_back(path);
    return true;
}

// Lists the file, or the regular files of the directory, sorted, so that the digest does not depend
// on their order in it.
bool ListFiles(const std::string& path, std::vector<std::string>& files, Failure& failure)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
    {
        return Refuse(failure, path, SystemError(errno));
    }
    if (!S_ISDIR(status.st_mode))
    {
        files.push_back(path);
        return (S_ISREG(status.st_mode) && status.st_size <= kLargestFile) ||
               Refuse(failure, path, "not a certificate file");
    }
    std::error_code error;
    const std::filesystem::directory_iterator end;
    for (std::filesystem::directory_iterator entry(path, error); !error && entry != end;
         entry.increment(error))
    {
        if (!ListFile(entry->path().string(), files, failure))
        {
            return false;
        }
    }
    std::sort(files.begin(), files.end());
    return !error || Refuse(failure, path, SystemError(error.value()));
}

bool LoadFiles(const std::string& path, Loader& loader, Failure& failure)
{
    std::vector<std::string> files;
    if (!ListFiles(path, files, failure))
    {
        return false;
    }
    for (const std::string& file : files)
    {
        if (!loader.AddFile(file, failure))
        {
            return false;
        }
    }
    return loader.Certificates() != 0 || Refuse(failure, path, "no certificate found");
}

}  // namespace

bool ParseTrustSettings(const char* text, TrustSettings& trust, Failure& failure)
{
    if (text == nullptr || *text == '\0')
    {
        return Fail(failure, TRAVEX_FTP_ERR_TRUST, "no trusted certificates given");
    }
    const std::string whole = text;
    // A text with "=" is a list of pairs, unless a "/" comes first: then it is a path.
    const size_t equals = whole.find('=');
    if (equals == std::string::npos || whole.find('/') < equals)
    {
        trust.authorities = whole;
        return true;
    }
    for (const std::string& pair : Split(whole, ';'))
    {
        if (!ParsePair(pair, trust, failure))
        {
            return false;
        }
    }
    return true;
}

bool LoadTrustAnchors(const std::string& authorities, TrustAnchors& anchors, Failure& failure)
{
    Loader loader;
    if (!loader.Ready())
    {
        return FailSystem(failure, "trust store");
    }
    if (authorities == "system")
    {
        return (loader.UseSystem() && loader.Finish(anchors)) ||
               FailSystem(failure, "system trust store");
    }
    return LoadFiles(authorities, loader, failure) &&
           (loader.Finish(anchors) || FailSystem(failure, "trust store"));
}

}  // namespace travex_ftp
