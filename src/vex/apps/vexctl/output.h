#pragma once
// Standard output and standard error of a command: buffered, with failures that end the command.

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Vexctl {

/// Nobody reads any more what is written: a pipe whose reader has ended.
class ReaderGone : public std::exception
{};

/// What was written could not be kept; what() is a line that says so.
class OutputFailed : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

enum class Colour { None, Good, Warning, Bad, Faint };

class Output
{
public:
    explicit Output(int descriptor);
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// The first text is written at once, so that a long run shows soon that it works; later ones when enough have come
    /// together. Throws the above.
    void Write(std::string_view text);
    void Flush();
    /// For an end that has another reason already.
    void FlushAsFarAsPossible();

    int Descriptor() const { return m_descriptor; }
    bool IsTerminal() const { return m_isTerminal; }
    /// Of the terminal, or what COLUMNS says; 0: lines may have any length.
    std::size_t Width() const { return m_width; }
    /// The text in a colour where colours are wanted: on a terminal, and without NO_COLOR.
    std::string Painted(Colour colour, std::string_view text) const;

private:
    const int m_descriptor;
    const bool m_isTerminal;
    const std::size_t m_width;
    const bool m_colours;
    bool m_begun = false;
    std::string m_waiting;
};

} // namespace Vexctl
