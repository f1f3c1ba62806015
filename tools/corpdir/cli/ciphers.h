// TLS cipher suites by number or name.
#ifndef CORPDIR_TOOL_CIPHERS_H
#define CORPDIR_TOOL_CIPHERS_H

#include <functional>
#include <string>
#include <vector>

namespace corpdir_tool
{

struct CipherSuite
{
    int identifier = 0;        // 0x03000000 plus the number in the IANA registry
    std::string standardName;  // in RFCs and the registry
    std::string opensslName;
    std::string protocol;  // "TLSv1.3", or the oldest version that has it
};

// The suites that the FTP layer accepts, in the TLS library's order of preference.
using CipherTable = std::vector<CipherSuite>;

// Makes the table; called only when needed, since it takes a moment.
using CipherSource = std::function<CipherTable()>;

// The suites of --ciphers: those of the word "compatible" (also without any text), "modern" or
// "service", or the suite of each text. Throws ExitError for anything else.
std::vector<int> FindSuites(const std::vector<std::string>& texts, const CipherSource& source);

// The identifier for "0x03000035", "0x0035", a decimal number, or either name of a suite in the
// table, in any case. A number need not be in the table: the FTP layer checks it. Throws ExitError
// for anything else.
int FindCipher(const std::string& text, const CipherSource& source);

}  // namespace corpdir_tool

#endif
