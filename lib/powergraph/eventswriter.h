#ifndef VELA_POWERGRAPH_EVENTSWRITER_H
#define VELA_POWERGRAPH_EVENTSWRITER_H

#include "runrecorder.h"

#include <QByteArray>

/*
 * A recorded run's events for machines: one JSON object per line, in the
 * order of the text timeline, with the time in microseconds since the run
 * started:
 *   {"detail":"target active","kind":"request","subject":"#1","time":0}
 */
class EventsWriter
{
public:
    static QByteArray write(const RunRecorder& recorder);
    // One event's line, without its end of line.
    static QByteArray line(const RunEvent& event);
};

#endif
