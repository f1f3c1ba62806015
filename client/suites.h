// The sets of TLS cipher suites that can be chosen by one word.
#ifndef CORPDIR_CLIENT_SUITES_H
#define CORPDIR_CLIENT_SUITES_H

#include <vector>

namespace client
{

enum class SuiteSet
{
    kCompatible,  // kModern, then kService: reaches servers of today and old ones
    kModern,  // TLS 1.3, and suites of TLS 1.2 with forward secrecy and authenticated encryption
    kService  // the service's own default (ftpcorpdir.h): TLS 1.2 without forward secrecy
};

// The identifiers of a set, best first: 0x03000000 plus the number in the IANA registry. Stateless;
// any thread. Throws std::bad_alloc.
std::vector<int> SuitesOf(SuiteSet set);

}  // namespace client

#endif
