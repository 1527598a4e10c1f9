#ifndef VELA_CLI_STOPSIGNALS_H
#define VELA_CLI_STOPSIGNALS_H

#include <QObject>

#include <signal.h>

class QSocketNotifier;

/*
 * Turns SIGINT and SIGTERM into an event of the event loop while it lives,
 * so that a run can stop cleanly (name what is unanswered, write its files)
 * instead of dying mid-way. The handler only writes the signal's number to
 * a socket pair; a socket notifier reads it in the event loop and emits
 * stopRequested(). A second signal ends the process at once, killed by that
 * signal. The previous handlers come back when it is destroyed.
 *
 *   StopSignals stop;
 *   QObject::connect(&stop, &StopSignals::stopRequested, [](int) { QCoreApplication::quit(); });
 *   QCoreApplication::exec();
 *   return stop.caught() ? 128 + stop.caught() : 0;
 */
class StopSignals : public QObject
{
    Q_OBJECT

public:
    explicit StopSignals(QObject* parent = nullptr);
    ~StopSignals() override;

    // The first signal caught; 0 when none was.
    int caught() const { return m_caught; }
    // "SIGINT" or "SIGTERM".
    static const char* name(int signal);

signals:
    void stopRequested(int signal);

private:
    static void handle(int signal);
    void readSignal();

    int m_sockets[2] = {-1, -1};
    QSocketNotifier* m_notifier = nullptr;
    int m_caught = 0;
    struct sigaction m_previousInterrupt = {};
    struct sigaction m_previousTerminate = {};
};

#endif
