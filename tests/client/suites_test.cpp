// The sets of cipher suites.
#include "suites.h"

#include <gmock/gmock.h>

namespace client
{
namespace
{

using ::testing::ElementsAre;

TEST(ClientSuites, TheModernOnesAreTls13AndEcdheWithAuthenticatedEncryption)
{
    EXPECT_THAT(SuitesOf(SuiteSet::kModern),
                ElementsAre(0x03001302, 0x03001303, 0x03001301, 0x0300C02C, 0x0300C030, 0x0300CCA9,
                            0x0300CCA8, 0x0300C02B, 0x0300C02F));
}

TEST(ClientSuites, TheServicesAreItsThree)
{
    EXPECT_THAT(SuitesOf(SuiteSet::kService), ElementsAre(0x03000035, 0x0300003C, 0x0300003D));
}

TEST(ClientSuites, TheCompatibleOnesEndInTheServices)
{
    std::vector<int> both = SuitesOf(SuiteSet::kModern);
    const std::vector<int> service = SuitesOf(SuiteSet::kService);
    both.insert(both.end(), service.begin(), service.end());
    EXPECT_EQ(SuitesOf(SuiteSet::kCompatible), both);
}

}  // namespace
}  // namespace client
