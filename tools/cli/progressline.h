#ifndef VELA_CLI_PROGRESSLINE_H
#define VELA_CLI_PROGRESSLINE_H

#include <QElapsedTimer>
#include <QString>

/*
 * One line on a terminal's standard error that says how far a long run is:
 *   vela-power run: 3 of 8 requests answered, 5 sent, at 1250 ms
 * It appears once the run is past one second and is redrawn in place; it is
 * erased before anything else is printed and at the end. When standard
 * error is not a terminal it never shows, so logs and pipes stay clean.
 */
class ProgressLine
{
public:
    ProgressLine();
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    bool isShown() const { return m_enabled; }
    // Redraws the line (at most ten times a second on the wall clock).
    void update(int answered, int sent, int total, qint64 runMs);
    // Takes the line away until the next update(), e.g. to print a line.
    void erase();

private:
    bool m_enabled = false;
    bool m_drawn = false;
    QElapsedTimer m_sinceDrawn;
};

#endif
