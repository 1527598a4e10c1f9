#ifndef VELA_FUZZ_FUZZCLIENT_H
#define VELA_FUZZ_FUZZCLIENT_H

#include <QString>
#include <QVariant>

#include <memory>
#include <vector>

struct DBusConnection;
struct DBusPendingCall;
class QSocketNotifier;

/*
 * A client of the service on a bus connection of libdbus's own (not
 * QtDBus's, which does not survive connections opened and closed by the
 * thousand in one process): it calls the manager, answers the revoke
 * messages it gets at once, with an error or never, and may vanish (its
 * connection closes, its calls unanswered). Incoming messages are read from
 * the Qt event loop.
 *
 *   FuzzClient client(address, FuzzClient::AtOnce);
 *   client.call(service, "RegisterModule", {"m0", QVariantMap()});
 *   ... run the event loop ...
 *   client.answer(0).finished
 */
class FuzzClient
{
public:
    enum RevokeAnswer { AtOnce, WithAnError, Never };

    struct Answer {
        bool finished = false;
        // Empty for a method return.
        QString errorName;
        QString errorMessage;
    };

    FuzzClient(const QString& address, RevokeAnswer revokeAnswer);
    ~FuzzClient();
    FuzzClient(const FuzzClient&) = delete;
    FuzzClient& operator=(const FuzzClient&) = delete;

    bool isConnected() const { return m_connection != nullptr; }
    QString uniqueName() const { return m_uniqueName; }
    bool gone() const { return m_gone; }

    // Calls `method` of org.vela.Power1.Manager at /org/vela/Power1 of
    // `destination`. Arguments are texts, int32s and maps of text to a text
    // or an int32 (a{sv}).
    void call(const QString& destination, const QString& method, const QVariantList& arguments);
    int calls() const { return static_cast<int>(m_calls.size()); }
    QString method(int index) const { return m_calls[static_cast<size_t>(index)].method; }
    QString firstArgument(int index) const { return m_calls[static_cast<size_t>(index)].firstArgument; }
    Answer answer(int index) const { return m_calls[static_cast<size_t>(index)].answer; }

    // Closes the connection; its calls stay unanswered.
    void vanish();
    // Reads what came and answers it.
    void pump();

private:
    struct Call {
        QString method;
        QString firstArgument;
        DBusPendingCall* pending = nullptr;
        Answer answer;
    };

    void collectAnswers();
    void close();

    DBusConnection* m_connection = nullptr;
    QString m_uniqueName;
    RevokeAnswer m_revokeAnswer;
    bool m_gone = false;
    std::vector<Call> m_calls;
    std::unique_ptr<QSocketNotifier> m_notifier;
};

#endif
