#include "ui/cipher_table.h"

#include <algorithm>

#include "suites.h"
#include "ui/json.h"

namespace corpdir_tool
{

namespace
{

std::string Hexadecimal(int identifier)
{
    char text[16] = "";
    (void)std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned int>(identifier));
    return text;
}

bool IsDefault(const CipherSuite& suite)
{
    const std::vector<int> suites = client::SuitesOf(client::SuiteSet::kCompatible);
    return std::find(suites.begin(), suites.end(), suite.identifier) != suites.end();
}

}  // namespace

void PrintCiphers(const CipherTable& table, std::FILE* output)
{
    (void)std::fprintf(output, "%-10s  %-7s  %-7s  %-45s  %s\n", "IDENTIFIER", "SINCE", "DEFAULT",
                       "STANDARD NAME", "OPENSSL NAME");
    for (const CipherSuite& suite : table)
    {
        (void)std::fprintf(output, "%s  %-7s  %-7s  %-45s  %s\n",
                           Hexadecimal(suite.identifier).c_str(), suite.protocol.c_str(),
                           IsDefault(suite) ? "yes" : "", suite.standardName.c_str(),
                           suite.opensslName.c_str());
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
                        {"default", IsDefault(suite)}});
    }
    (void)std::fprintf(output, "%s\n", TextOf(list).c_str());
}

}  // namespace corpdir_tool
