#include "certificates.h"

#include <ctime>
#include <stdexcept>
#include <vector>

#include "process.h"

namespace support
{

const TestCertificates::Validity TestCertificates::kValidNow = {"20240101000000Z",
                                                                "20991231000000Z"};
const TestCertificates::Validity TestCertificates::kExpired = {"20200101000000Z",
                                                               "20210101000000Z"};
const TestCertificates::Validity TestCertificates::kNotYetValid = {"20980101000000Z",
                                                                   "20991231000000Z"};

namespace
{

void OpenSsl(const std::vector<std::string>& arguments)
{
    std::vector<std::string> all = {"openssl"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const CommandResult result = RunCommand({all, {}, ""});
    if (result.status != 0)
    {
        throw std::runtime_error("openssl " + arguments[0] + " failed:\n" + result.output);
    }
}

// Authorities have such keys: they are made quickly, and no cipher suite depends on them.
std::string MakeEllipticKey(const std::string& base)
{
    OpenSsl({"genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out",
             base + ".key"});
    return base + ".key";
}

// The files of "openssl ca", the only command of OpenSSL 3.0 that takes a certificate's dates.
void PrepareAuthority(const std::string& base)
{
    WriteFile(base + ".index", "");
    WriteFile(base + ".cnf",
              "[ca]\ndefault_ca=here\n[here]\ndatabase=" + base + ".index\nnew_certs_dir=" +
                  base.substr(0, base.rfind('/')) + "\nrand_serial=yes\nunique_subject=no\n" +
                  "default_md=sha256\npolicy=any\ncertificate=" + base +
                  ".pem\nprivate_key=" + base + ".key\n[any]\ncommonName=supplied\n");
}

}  // namespace

TestCertificates::TestCertificates() : m_key(CORPDIR_TEST_SERVER_KEY)
{
    m_authority = MakeRootAuthority("authority");
    m_other_authority = MakeRootAuthority("other-authority");
}

const std::string& TestCertificates::Authority() const
{
    return m_authority;
}

const std::string& TestCertificates::OtherAuthority() const
{
    return m_other_authority;
}

ServerCertificate TestCertificates::Good() const
{
    return WithNames(kNames);
}

ServerCertificate TestCertificates::GoodElliptic() const
{
    return Leaf("authority", kNames, kValidNow, MakeEllipticKey(m_directory.File("elliptic")));
}

ServerCertificate TestCertificates::WithNames(const std::string& names) const
{
    return Leaf("authority", names, kValidNow);
}

ServerCertificate TestCertificates::WrongName() const
{
    return WithNames("IP:192.0.2.1,DNS:elsewhere.test");
}

ServerCertificate TestCertificates::Expired() const
{
    return Leaf("authority", kNames, kExpired);
}

ServerCertificate TestCertificates::NotYetValid() const
{
    return Leaf("authority", kNames, kNotYetValid);
}

ServerCertificate TestCertificates::EndingIn(int days) const
{
    const std::time_t end = std::time(nullptr) + days * std::time_t{86400};
    char text[32] = "";
    (void)std::strftime(text, sizeof text, "%Y%m%d%H%M%SZ", std::gmtime(&end));
    return Leaf("authority", kNames, {kValidNow.from, text});
}

ServerCertificate TestCertificates::FromOtherAuthority() const
{
    return Leaf("other-authority", kNames, kValidNow);
}

ServerCertificate TestCertificates::SelfSigned() const
{
    const std::string certificate = NewFile(".pem");
    OpenSsl({"req", "-x509", "-new", "-key", m_key, "-subj", "/CN=self", "-days", "30", "-addext",
             std::string("subjectAltName=") + kNames, "-out", certificate});
    return {certificate, m_key};
}

ServerCertificate TestCertificates::ViaIntermediate() const
{
    return ViaIntermediate(kValidNow);
}

ServerCertificate TestCertificates::ViaExpiredIntermediate() const
{
    return ViaIntermediate(kExpired);
}

ServerCertificate TestCertificates::ViaIntermediateNotYetValid() const
{
    return ViaIntermediate(kNotYetValid);
}

ServerCertificate TestCertificates::ViaIntermediate(Validity validity) const
{
    const std::string base = m_directory.File("intermediate");
    Sign("authority", "/CN=intermediate", MakeEllipticKey(base), base + ".pem",
         "basicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign\n", validity);
    PrepareAuthority(base);
    const ServerCertificate leaf = Leaf("intermediate", kNames, kValidNow);
    WriteFile(leaf.certificate_file, ReadFile(leaf.certificate_file) + ReadFile(base + ".pem"));
    return leaf;
}

std::string TestCertificates::NewFile(const std::string& suffix) const
{
    return m_directory.File(std::to_string(++m_files) + suffix);
}

std::string TestCertificates::MakeRootAuthority(const std::string& name) const
{
    const std::string base = m_directory.File(name);
    OpenSsl({"req", "-x509", "-new", "-key", MakeEllipticKey(base), "-subj", "/CN=" + name, "-days",
             "3650", "-addext", "keyUsage=critical,keyCertSign", "-out", base + ".pem"});
    PrepareAuthority(base);
    return base + ".pem";
}

void TestCertificates::Sign(const std::string& authority, const std::string& subject,
                            const std::string& key, const std::string& certificate,
                            const std::string& extensions, Validity validity) const
{
    const std::string request = NewFile(".request");
    const std::string extension_file = NewFile(".extensions");
    WriteFile(extension_file, extensions);
    OpenSsl({"req", "-new", "-key", key, "-subj", subject, "-out", request});
    OpenSsl({"ca", "-batch", "-notext", "-config", m_directory.File(authority + ".cnf"),
             "-startdate", validity.from, "-enddate", validity.until, "-in", request, "-extfile",
             extension_file, "-out", certificate});
}

ServerCertificate TestCertificates::Leaf(const std::string& authority, const std::string& names,
                                         Validity validity) const
{
    return Leaf(authority, names, validity, m_key);
}

ServerCertificate TestCertificates::Leaf(const std::string& authority, const std::string& names,
                                         Validity validity, const std::string& key) const
{
    const std::string certificate = NewFile(".pem");
    Sign(authority, "/CN=server", key, certificate,
         "basicConstraints=CA:FALSE\nsubjectAltName=" + names + "\n", validity);
    return {certificate, key};
}

}  // namespace support
