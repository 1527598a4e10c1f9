#ifndef VELA_FUZZ_FUZZEDPLATFORM_H
#define VELA_FUZZ_FUZZEDPLATFORM_H

#include "fuzzinput.h"

#include "cmpath.h"
#include "cmreply.h"

#include <QList>
#include <QObject>
#include <QString>

/*
 * The modules of the platform as the fuzzer plays them: a handler on the
 * root worker for every data path and revoke path of the graph, answering
 * each call as the input decides: at once, from the event loop, with an
 * error, twice, or not at all.
 *
 * A write that is not answered is kept; the resource's time-out is what
 * ends it, and the input may still answer it afterwards (that late answer
 * must be ignored). A revoke message is waited for without a limit, so one
 * that is not answered is kept until the run has gone quiet, and then
 * answered, one at a time, in the order the calls came.
 */
class FuzzedPlatform
{
public:
    explicit FuzzedPlatform(FuzzInput& input);
    ~FuzzedPlatform();
    FuzzedPlatform(const FuzzedPlatform&) = delete;
    FuzzedPlatform& operator=(const FuzzedPlatform&) = delete;

    void serveWrites(const CMPath& path);
    void serveRevokes(const CMPath& path);

    // Nothing that the platform started is still under way: no answer is
    // waiting in the event loop and every kept write has timed out.
    bool settled() const;
    // Answers the oldest kept revoke message; false when none is kept.
    bool answerKeptRevoke();
    // Answers kept writes (all of them timed out by now) once more.
    void answerKeptWritesLate();
    // Every call the platform received; the run uses it to see progress.
    int calls() const;

private:
    enum class Answer { AtOnce, Later, WithError, Twice, Never };

    void respond(const CMPath& path, const CMReply<QVariant>& reply, QList<CMReply<QVariant>>& kept);
    Answer nextAnswer();

    FuzzInput& m_input;
    QObject m_context; // the receiver of answers given from the event loop
    QList<CMReply<QVariant>> m_keptWrites;
    QList<CMReply<QVariant>> m_keptRevokes;
    int m_later = 0;
    int m_calls = 0;
};

#endif
