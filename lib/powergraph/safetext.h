#ifndef VELA_POWERGRAPH_SAFETEXT_H
#define VELA_POWERGRAPH_SAFETEXT_H

#include <QString>

/*
 * Text taken from a file and shown back to a person. A name must be printable
 * and short, because it ends up in log lines, timelines and messages that are
 * read one per line: a newline in a name could forge a line, and a name of
 * megabytes would drown the message about it.
 */
class SafeText
{
public:
    static constexpr int maximumNameLength = 64;
    static constexpr int maximumPathLength = 256;
    // How much of a refused text a message repeats.
    static constexpr int shownLength = 40;

    // Why `text` is not acceptable as a name of at most `maximumLength`
    // characters; empty when it is.
    static QString problem(const QString& text, int maximumLength);
    // `text` in double quotes for a message: control and other unprintable
    // characters escaped, cut after shownLength characters.
    static QString quoted(const QString& text);
};

#endif
