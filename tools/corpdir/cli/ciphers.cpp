#include "cli/ciphers.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "commands/failure.h"
#include "ui/json.h"
#include "ui/text.h"

namespace corpdir_tool
{

namespace
{

constexpr unsigned long CIPHER_PREFIX = 0x03000000;

// What the service offers when its client sets nothing; ftpcorpdir.h names them.
constexpr int DEFAULT_CIPHERS[] = {0x03000035, 0x0300003C, 0x0300003D};

// The value of a number that is one from end to end; strtoul itself would also take a sign, blanks
// and a second "0x".
std::optional<unsigned long> NumberOf(const std::string& text)
{
    const bool hexadecimal = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0;
    const std::string digits = text.substr(hexadecimal ? 2 : 0);
    const char* const allowed = hexadecimal ? "0123456789abcdefABCDEF" : "0123456789";
    if (digits.empty() || digits.size() > 10 ||
        digits.find_first_not_of(allowed) != std::string::npos)
    {
        return std::nullopt;
    }
    return std::strtoul(digits.c_str(), nullptr, hexadecimal ? 16 : 10);
}

[[noreturn]] void Refuse(const std::string& text, const std::string& why)
{
    throw Failure(EXIT_ARGUMENTS, "--ciphers: '" + Printable(text) + "' " + why);
}

bool SameName(const std::string& one, const std::string& other)
{
    return strcasecmp(one.c_str(), other.c_str()) == 0;
}

std::string Hexadecimal(int identifier)
{
    char text[16] = "";
    (void)std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned int>(identifier));
    return text;
}

}  // namespace

bool IsDefaultCipher(int identifier)
{
    return std::find(std::begin(DEFAULT_CIPHERS), std::end(DEFAULT_CIPHERS), identifier) !=
           std::end(DEFAULT_CIPHERS);
}

int FindCipher(const std::string& text, const CipherSource& source)
{
    if (const std::optional<unsigned long> number = NumberOf(text))
    {
        const unsigned long identifier = *number <= 0xffff ? *number | CIPHER_PREFIX : *number;
        if ((identifier & ~0xffffUL) != CIPHER_PREFIX)
        {
            Refuse(text, "is not a cipher suite identifier such as 0x03000035, 0x0035 or 53");
        }
        return static_cast<int>(identifier);
    }
    for (const CipherSuite& suite : source())
    {
        if (SameName(text, suite.standardName) || SameName(text, suite.opensslName))
        {
            return suite.identifier;
        }
    }
    Refuse(text, "is not a cipher suite of this system; 'corpdir ciphers' lists them");
}

void PrintCiphers(const CipherTable& table, std::FILE* output)
{
    (void)std::fprintf(output, "%-10s  %-7s  %-7s  %-45s  %s\n", "IDENTIFIER", "SINCE", "DEFAULT",
                       "STANDARD NAME", "OPENSSL NAME");
    for (const CipherSuite& suite : table)
    {
        (void)std::fprintf(output, "%s  %-7s  %-7s  %-45s  %s\n",
                           Hexadecimal(suite.identifier).c_str(), suite.protocol.c_str(),
                           IsDefaultCipher(suite.identifier) ? "yes" : "",
                           suite.standardName.c_str(), suite.opensslName.c_str());
    }
}

void PrintCiphersAsJson(const CipherTable& table, std::FILE* output)
{
    Json list = Json::array();
    for (const CipherSuite& suite : table)
    {
        list.push_back({{"identifier", Hexadecimal(suite.identifier)},
                        {"standard_name", suite.standardName},
                        {"openssl_name", suite.opensslName},
                        {"since", suite.protocol},
                        {"default", IsDefaultCipher(suite.identifier)}});
    }
    (void)std::fprintf(output, "%s\n", TextOf(list).c_str());
}

}  // namespace corpdir_tool
