// The wipe survives optimisation: shown on the machine code of zep_wipe_probe.cpp, in which a plain
// memset of the same buffer does not.
#include "process.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace
{
// The instructions of one function behind its call of FillSecret, relocations included.
std::string CodeAfterTheCall(const std::string& function)
{
    const support::CommandResult result =
        support::RunCommand({{CORPDIR_OBJDUMP, "--disassemble=" + function, "--reloc",
                              "--no-show-raw-insn", CORPDIR_WIPE_PROBE},
                             {},
                             {}});
    EXPECT_EQ(result.status, 0) << result.output;
    const std::size_t call = result.output.rfind("FillSecret");
    EXPECT_NE(call, std::string::npos) << result.output;
    return call == std::string::npos ? "" : result.output.substr(call);
}

// A call of memset, or the stores that compilers put in its place.
bool ClearsMemory(const std::string& code)
{
    return std::regex_search(code, std::regex(R"(memset|\bstos|\bstp\s+[xq]zr|\bdc\s+zva)"));
}

TEST(ZepWipe, StandsInTheCompiledCode)
{
    const std::string code = CodeAfterTheCall("WipedByTheHelper");
    EXPECT_TRUE(ClearsMemory(code)) << code;
}

TEST(ZepWipe, APlainMemsetOfTheSameBufferIsGone)
{
    const std::string code = CodeAfterTheCall("WipedByPlainMemset");
    EXPECT_FALSE(ClearsMemory(code)) << code;
}

}  // namespace
