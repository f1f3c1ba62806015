// The abilities of an output stream: width, colours, rewriting a line.
#ifndef CORPDIR_TOOL_TERMINAL_H
#define CORPDIR_TOOL_TERMINAL_H

#include <cstdio>
#include <string>

namespace corpdir_tool
{

// Colours, by their numbers in ECMA-48.
enum class Style
{
    kBad = 31,    // red
    kWarn = 33,   // yellow
    kFaint = 90,  // grey
};

// Not thread-safe: belongs to the main thread. Does not own the stream.
class Terminal
{
public:
    // Uses TERM and NO_COLOR (set when not empty).
    explicit Terminal(std::FILE* stream);

    // For tests: a terminal of this width; 0: not a terminal.
    Terminal(std::FILE* stream, unsigned int width, bool colours)
        : m_stream(stream), m_width(width), m_rewrites(width != 0), m_colours(colours)
    {
    }

    std::FILE* Stream() const
    {
        return m_stream;
    }

    // True for a terminal that can rewrite a line.
    bool Rewrites() const
    {
        return m_rewrites;
    }

    // Current number of columns; 80 when not known.
    unsigned int Width() const;

    // The text in that style; unchanged without colours.
    std::string Styled(Style style, const std::string& text) const;

private:
    std::FILE* m_stream;
    unsigned int m_width = 0;  // 0: ask
    bool m_rewrites;
    bool m_colours;
};

}  // namespace corpdir_tool

#endif
