// The service's key material, for tests. The unit itself is compiled into service_secrets.cpp; the
// product has no hooks.
#ifndef CORPDIR_TESTS_SERVICE_SECRETS_H
#define CORPDIR_TESTS_SERVICE_SECRETS_H

#include <vector>

#include "memory_search.h"

namespace integration
{

using Secrets = std::vector<support::Scrambled>;

// The key and the IV that seal the password of the current request, each in two halves.
Secrets SealingSecrets();

}  // namespace integration

#endif
