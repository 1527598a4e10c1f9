#include "stopsignals.h"

#include <QSocketNotifier>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace {

// What a signal handler may reach: where to write, and whether a signal came
// already. Set while a StopSignals object lives (one at a time).
volatile sig_atomic_t signalSocket = -1;
volatile sig_atomic_t signalsCaught = 0;

} // namespace

StopSignals::StopSignals(QObject* parent)
    : QObject(parent)
{
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_sockets) != 0)
        return;
    signalSocket = m_sockets[0];
    signalsCaught = 0;
    m_notifier = new QSocketNotifier(m_sockets[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &StopSignals::readSignal);

    struct sigaction action = {};
    action.sa_handler = &StopSignals::handle;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, &m_previousInterrupt);
    sigaction(SIGTERM, &action, &m_previousTerminate);
}

StopSignals::~StopSignals()
{
    if (m_sockets[0] < 0)
        return;
    sigaction(SIGINT, &m_previousInterrupt, nullptr);
    sigaction(SIGTERM, &m_previousTerminate, nullptr);
    signalSocket = -1;
    delete m_notifier;
    close(m_sockets[0]);
    close(m_sockets[1]);
}

const char* StopSignals::name(int signal)
{
    return signal == SIGINT ? "SIGINT" : signal == SIGTERM ? "SIGTERM" : "a signal";
}

// The first signal asks the event loop to stop. A second one ends the
// process at once, as the signal's default action would: the event loop may
// be busy for minutes inside one switch of a large graph.
void StopSignals::handle(int signal)
{
    if (signalsCaught++ > 0) {
        struct sigaction action = {};
        action.sa_handler = SIG_DFL;
        sigemptyset(&action.sa_mask);
        sigaction(signal, &action, nullptr);
        raise(signal);
        return;
    }
    const int savedErrno = errno;
    const char number = static_cast<char>(signal);
    if (signalSocket >= 0 && write(signalSocket, &number, 1) < 0) {
        // Nothing can be done about it from here.
    }
    errno = savedErrno;
}

void StopSignals::readSignal()
{
    char number = 0;
    if (read(m_sockets[1], &number, 1) != 1)
        return;
    if (m_caught != 0)
        return;
    m_caught = number;
    emit stopRequested(m_caught);
}
