#include "os/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace corpdir_tool
{

namespace
{

constexpr unsigned int kUsualWidth = 80;

bool CanRewrite(std::FILE* stream)
{
    const char* const kind = secure_getenv("TERM");
    return isatty(fileno(stream)) == 1 && kind != nullptr && std::strcmp(kind, "dumb") != 0;
}

bool WantsColours()
{
    const char* const none = secure_getenv("NO_COLOR");
    return none == nullptr || *none == '\0';
}

// ECMA-48 colours.
const char* CodeOf(Style style)
{
    switch (style)
    {
        case Style::kBad:
            return "31";
        case Style::kWarn:
            return "33";
        case Style::kFaint:
            return "90";
    }
    return "";
}

}  // namespace

Terminal::Terminal(std::FILE* stream)
    : m_stream(stream), m_rewrites(CanRewrite(stream)), m_colours(m_rewrites && WantsColours())
{
}

unsigned int Terminal::Width() const
{
    winsize size = {};
    if (m_width != 0)
    {
        return m_width;
    }
    const bool known = ioctl(fileno(m_stream), TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
    return known ? size.ws_col : kUsualWidth;
}

std::string Terminal::Styled(Style style, const std::string& text) const
{
    return m_colours ? "\033[" + std::string(CodeOf(style)) + "m" + text + "\033[0m" : text;
}

}  // namespace corpdir_tool
