// TLS cipher suites by any of their names.
#ifndef CORPDIR_TOOL_CIPHERS_H
#define CORPDIR_TOOL_CIPHERS_H

#include <cstdio>
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

// Gives the table; asked only when it is needed, since it costs a moment.
using CipherSource = std::function<CipherTable()>;

// True for a suite that is offered when none is chosen.
bool IsDefaultCipher(int identifier);

// The identifier for "0x03000035", "0x0035", a decimal number, or either name of a suite of the
// table, in any case. A number need not be in the table: the FTP layer has the last word. Throws
// Failure for anything else.
int FindCipher(const std::string& text, const CipherSource& source);

// One line for each suite, under a heading.
void PrintCiphers(const CipherTable& table, std::FILE* output);

// The same as a JSON array of objects.
void PrintCiphersAsJson(const CipherTable& table, std::FILE* output);

}  // namespace corpdir_tool

#endif
