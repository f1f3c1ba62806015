// The output of `ciphers`.
#ifndef CORPDIR_TOOL_CIPHER_TABLE_H
#define CORPDIR_TOOL_CIPHER_TABLE_H

#include <cstdio>

#include "cli/ciphers.h"

namespace corpdir_tool
{

// One line for each suite, below a heading.
void PrintCiphers(const CipherTable& table, std::FILE* output);

// The same as a JSON array of objects.
void PrintCiphersAsJson(const CipherTable& table, std::FILE* output);

}  // namespace corpdir_tool

#endif
