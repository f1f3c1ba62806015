// A password that is kept for requests to come.
#include "sealed_password.h"

#include <string>

#include <gtest/gtest.h>

namespace client
{
namespace
{

TEST(SealedPassword, OpensAsItWas)
{
    for (const std::string& text : {std::string("p"), std::string("sixteen bytes..."),
                                    std::string("\xC3\xA4\0zero", 7), std::string(127, 'x')})
    {
        const SealedPassword sealed(text);
        for (int i = 0; i < 2; ++i)
        {
            Secret opened;
            sealed.Open(opened);
            EXPECT_EQ(text, opened.View());
        }
    }
}

}  // namespace
}  // namespace client
