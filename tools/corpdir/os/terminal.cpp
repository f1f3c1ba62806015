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
    const std::string code = std::to_string(static_cast<int>(style));
    return m_colours ? "\033[" + code + "m" + text + "\033[0m" : text;
}

}  // namespace corpdir_tool
