#include "fuzzedplatform.h"

#include "cmerror.h"
#include "cmrootworker.h"
#include "velahash.h"

#include <QTimer>

namespace {

CMError refusal()
{
    return CMError(TrString("refused by the fuzzed platform"));
}

} // namespace

FuzzedPlatform::FuzzedPlatform(FuzzInput& input)
    : m_input(input)
{
}

// The root worker is the process's: the next run must not reach this one.
FuzzedPlatform::~FuzzedPlatform()
{
    CMRootWorker::instance()->clearHandlers();
}

void FuzzedPlatform::serveWrites(const CMPath& path)
{
    CMRootWorker::instance()->registerSetDataHandler(
        path, [this](const CMPath& at, const QString&, const QVariant&, CMReply<QVariant> reply) {
            respond(at, reply, m_keptWrites);
        });
}

void FuzzedPlatform::serveRevokes(const CMPath& path)
{
    CMRootWorker::instance()->registerInvokeHandler(
        path, [this](const CMPath& at, const VelaHash&, CMReply<QVariant> reply) { respond(at, reply, m_keptRevokes); });
}

FuzzedPlatform::Answer FuzzedPlatform::nextAnswer()
{
    return static_cast<Answer>(m_input.pick(5));
}

void FuzzedPlatform::respond(const CMPath& path, const CMReply<QVariant>& reply, QList<CMReply<QVariant>>& kept)
{
    static const char* const names[] = {"at once", "later", "with an error", "twice", "never"};
    const Answer answer = nextAnswer();
    FuzzInput::trace("platform: " + path.toString().toStdString() + " answered " +
                     names[static_cast<int>(answer)]);
    ++m_calls;
    switch (answer) {
    case Answer::AtOnce:
        reply.setValue(QVariant(true));
        break;
    case Answer::WithError:
        reply.setError(refusal());
        break;
    case Answer::Twice:
        // The second answer, an error, comes too late and must change nothing.
        reply.setValue(QVariant(true));
        reply.setError(refusal());
        break;
    case Answer::Later:
        ++m_later;
        QTimer::singleShot(0, &m_context, [this, reply]() {
            --m_later;
            reply.setValue(QVariant(true));
        });
        break;
    case Answer::Never:
        kept.append(reply);
        break;
    }
}

bool FuzzedPlatform::settled() const
{
    if (m_later > 0)
        return false;
    for (const CMReply<QVariant>& write : m_keptWrites) {
        if (!write.isFinished())
            return false;
    }
    return true;
}

bool FuzzedPlatform::answerKeptRevoke()
{
    if (m_keptRevokes.isEmpty())
        return false;
    const CMReply<QVariant> revoke = m_keptRevokes.takeFirst();
    const bool refused = m_input.oneIn(3);
    FuzzInput::trace(std::string("platform: a kept revoke message answered ") + (refused ? "with an error" : "at last"));
    if (refused)
        revoke.setError(refusal());
    else
        revoke.setValue(QVariant(true));
    return true;
}

void FuzzedPlatform::answerKeptWritesLate()
{
    for (const CMReply<QVariant>& write : qAsConst(m_keptWrites))
        write.setValue(QVariant(true));
}

int FuzzedPlatform::calls() const
{
    return m_calls;
}
