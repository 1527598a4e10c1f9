#include "progressline.h"

#include <unistd.h>

#include <iostream>

namespace {

constexpr qint64 showAfterMs = 1000;
constexpr qint64 redrawEveryMs = 100;

} // namespace

ProgressLine::ProgressLine()
    : m_enabled(isatty(STDERR_FILENO) == 1)
{
}

ProgressLine::~ProgressLine()
{
    erase();
}

void ProgressLine::update(int answered, int sent, int total, qint64 runMs)
{
    if (!m_enabled || runMs < showAfterMs)
        return;
    if (m_drawn && m_sinceDrawn.isValid() && m_sinceDrawn.elapsed() < redrawEveryMs)
        return;
    std::cerr << "\r\033[K"
              << QStringLiteral("vela-power run: %1 of %2 requests answered, %3 sent, at %4 ms")
                     .arg(answered)
                     .arg(total)
                     .arg(sent)
                     .arg(runMs)
                     .toStdString()
              << std::flush;
    m_drawn = true;
    m_sinceDrawn.start();
}

void ProgressLine::erase()
{
    if (!m_drawn)
        return;
    std::cerr << "\r\033[K" << std::flush;
    m_drawn = false;
}
