#ifndef VELA_POWERGRAPH_TIMELINE_H
#define VELA_POWERGRAPH_TIMELINE_H

#include "runrecorder.h"

#include <QString>

#include <ostream>

/*
 * A run's events as text, one line each, with the time since the run
 * started:
 *   [    0 ms] request   #1 target active
 *   [    0 ms] write     /modules/display/power on = true
 *   [    0 ms] state     display -> enabled
 */
class Timeline
{
public:
    // Each line at once (someone watches it live), or when the stream's
    // buffer is full (the output goes to a file or pipe, and a large run
    // would spend its time flushing).
    enum class Flushing { EachLine, WhenFull };

    explicit Timeline(std::ostream& out, Flushing flushing = Flushing::EachLine);
    Timeline(const Timeline&) = delete;
    Timeline& operator=(const Timeline&) = delete;

    void print(const RunRecorder::Event& event);

    // The line of an event, without its end of line.
    static QString line(const RunRecorder::Event& event);
    // What an event says after its kind ("display -> enabled").
    static QString text(const RunRecorder::Event& event);

private:
    std::ostream& m_out;
    Flushing m_flushing;
};

#endif
