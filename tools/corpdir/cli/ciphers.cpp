#include "cli/ciphers.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <utility>

#include "exit_error.h"
#include "suites.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

constexpr unsigned long kCipherPrefix = 0x03000000;

// The value of a text that is a number as a whole; strtoul alone would also accept a sign, blanks
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
    throw ExitError(kExitArguments, "--ciphers: '" + Printable(text) + "' " + why);
}

bool SameName(const std::string& one, const std::string& other)
{
    return strcasecmp(one.c_str(), other.c_str()) == 0;
}

std::optional<client::SuiteSet> SetOf(const std::string& text)
{
    const std::pair<const char*, client::SuiteSet> sets[] = {
        {"compatible", client::SuiteSet::kCompatible},
        {"modern", client::SuiteSet::kModern},
        {"service", client::SuiteSet::kService}};
    for (const auto& [word, set] : sets)
    {
        if (SameName(text, word))
        {
            return set;
        }
    }
    return std::nullopt;
}

}  // namespace

std::vector<int> FindSuites(const std::vector<std::string>& texts, const CipherSource& source)
{
    if (texts.empty())
    {
        return client::SuitesOf(client::SuiteSet::kCompatible);
    }
    std::vector<int> suites;
    for (const std::string& text : texts)
    {
        const std::optional<client::SuiteSet> set = SetOf(text);
        if (set && texts.size() == 1)
        {
            return client::SuitesOf(*set);
        }
        if (set)
        {
            Refuse(text, "is a set of suites and cannot be combined with other values");
        }
        suites.push_back(FindCipher(text, source));
    }
    return suites;
}

int FindCipher(const std::string& text, const CipherSource& source)
{
    if (const std::optional<unsigned long> number = NumberOf(text))
    {
        const unsigned long identifier = *number <= 0xffff ? *number | kCipherPrefix : *number;
        if ((identifier & ~0xffffUL) != kCipherPrefix)
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

}  // namespace corpdir_tool
