// What a stream can show: its width, its colours, a line that is rewritten.
#ifndef CORPDIR_TOOL_TERMINAL_H
#define CORPDIR_TOOL_TERMINAL_H

#include <cstdio>
#include <string>

namespace corpdir_tool
{

enum class Style
{
    kPlain,
    kBad,    // red
    kWarn,   // yellow
    kGood,   // green
    kFaint,  // grey
};

// Not thread-safe: belongs to the main thread. Does not own the stream.
class Terminal
{
public:
    // Looks at the stream, at TERM and at NO_COLOR, which any value but an empty one sets.
    explicit Terminal(std::FILE* stream);

    // For tests: a terminal of this width, or none at all.
    Terminal(std::FILE* stream, unsigned int width, bool colours)
        : m_stream(stream), m_width(width), m_rewrites(width != 0), m_colours(colours)
    {
    }

    std::FILE* Stream() const
    {
        return m_stream;
    }

    // A line can be rewritten: it is a terminal, and not a dumb one.
    bool Rewrites() const
    {
        return m_rewrites;
    }

    // Columns, as they are now; 80 when they are not known.
    unsigned int Width() const;

    // The text in that style, or as it is where there are no colours.
    std::string Styled(Style style, const std::string& text) const;

private:
    std::FILE* m_stream;
    unsigned int m_width = 0;  // 0: ask
    bool m_rewrites;
    bool m_colours;
};

}  // namespace corpdir_tool

#endif
