#include "eventloop.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>

bool waitUntil(const std::function<bool()>& condition, int watchdogMs)
{
    QDeadlineTimer watchdog(watchdogMs);
    while (!condition()) {
        if (watchdog.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 50);
    }
    return true;
}

void drainEvents()
{
    for (int round = 0; round < 4; ++round)
        QCoreApplication::processEvents(QEventLoop::AllEvents);
}
