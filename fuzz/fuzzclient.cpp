#include "fuzzclient.h"

#include <QSocketNotifier>
#include <QVariantMap>

#include <dbus/dbus.h>

namespace {

const char* const managerPath = "/org/vela/Power1";
const char* const managerInterface = "org.vela.Power1.Manager";

void appendText(DBusMessageIter* iter, const QString& text)
{
    const QByteArray utf8 = text.toUtf8();
    const char* data = utf8.constData();
    dbus_message_iter_append_basic(iter, DBUS_TYPE_STRING, &data);
}

void appendInt(DBusMessageIter* iter, int value)
{
    const dbus_int32_t number = value;
    dbus_message_iter_append_basic(iter, DBUS_TYPE_INT32, &number);
}

void appendVariant(DBusMessageIter* iter, const QVariant& value)
{
    const bool text = value.userType() == QMetaType::QString;
    DBusMessageIter variant;
    dbus_message_iter_open_container(iter, DBUS_TYPE_VARIANT, text ? "s" : "i", &variant);
    if (text)
        appendText(&variant, value.toString());
    else
        appendInt(&variant, value.toInt());
    dbus_message_iter_close_container(iter, &variant);
}

void appendMap(DBusMessageIter* iter, const QVariantMap& map)
{
    DBusMessageIter array;
    dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, "{sv}", &array);
    for (auto entry = map.constBegin(); entry != map.constEnd(); ++entry) {
        DBusMessageIter pair;
        dbus_message_iter_open_container(&array, DBUS_TYPE_DICT_ENTRY, nullptr, &pair);
        appendText(&pair, entry.key());
        appendVariant(&pair, entry.value());
        dbus_message_iter_close_container(&array, &pair);
    }
    dbus_message_iter_close_container(iter, &array);
}

void appendArgument(DBusMessageIter* iter, const QVariant& argument)
{
    switch (argument.userType()) {
    case QMetaType::QVariantMap:
        appendMap(iter, argument.toMap());
        break;
    case QMetaType::Int:
        appendInt(iter, argument.toInt());
        break;
    default:
        appendText(iter, argument.toString());
        break;
    }
}

// Answers the service's revoke messages as the client was told to; leaves
// every other message to libdbus, which answers an unknown call.
DBusHandlerResult takeRevoke(DBusConnection* connection, DBusMessage* message, void* data)
{
    if (!dbus_message_is_method_call(message, "org.vela.Power1.Module", "Revoke"))
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    const auto answer = *static_cast<FuzzClient::RevokeAnswer*>(data);
    DBusMessage* reply = nullptr;
    if (answer == FuzzClient::AtOnce)
        reply = dbus_message_new_method_return(message);
    else if (answer == FuzzClient::WithAnError)
        reply = dbus_message_new_error(message, "org.example.Busy", "busy");
    if (reply) {
        dbus_connection_send(connection, reply, nullptr);
        dbus_message_unref(reply);
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

} // namespace

FuzzClient::FuzzClient(const QString& address, RevokeAnswer revokeAnswer)
    : m_revokeAnswer(revokeAnswer)
{
    DBusError error;
    dbus_error_init(&error);
    m_connection = dbus_connection_open_private(address.toUtf8().constData(), &error);
    if (!m_connection || !dbus_bus_register(m_connection, &error)) {
        dbus_error_free(&error);
        close();
        return;
    }
    dbus_connection_set_exit_on_disconnect(m_connection, FALSE);
    dbus_connection_add_filter(m_connection, takeRevoke, &m_revokeAnswer, nullptr);
    m_uniqueName = QString::fromUtf8(dbus_bus_get_unique_name(m_connection));
    int fd = -1;
    if (dbus_connection_get_unix_fd(m_connection, &fd)) {
        m_notifier = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
        QObject::connect(m_notifier.get(), &QSocketNotifier::activated, [this]() { pump(); });
    }
}

FuzzClient::~FuzzClient()
{
    close();
}

void FuzzClient::call(const QString& destination, const QString& method, const QVariantList& arguments)
{
    if (!m_connection)
        return;
    DBusMessage* message = dbus_message_new_method_call(destination.toUtf8().constData(), managerPath, managerInterface,
                                                        method.toUtf8().constData());
    DBusMessageIter iter;
    dbus_message_iter_init_append(message, &iter);
    for (const QVariant& argument : arguments)
        appendArgument(&iter, argument);
    Call call;
    call.method = method;
    call.firstArgument = arguments.isEmpty() ? QString() : arguments.constFirst().toString();
    dbus_connection_send_with_reply(m_connection, message, &call.pending, DBUS_TIMEOUT_USE_DEFAULT);
    dbus_message_unref(message);
    dbus_connection_flush(m_connection);
    m_calls.push_back(call);
}

// Keeps the answers that came, and lets their pending calls go.
void FuzzClient::collectAnswers()
{
    for (Call& call : m_calls) {
        if (!call.pending || !dbus_pending_call_get_completed(call.pending))
            continue;
        call.answer.finished = true;
        DBusMessage* reply = dbus_pending_call_steal_reply(call.pending);
        dbus_pending_call_unref(call.pending);
        call.pending = nullptr;
        if (!reply)
            continue;
        if (dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_ERROR) {
            call.answer.errorName = QString::fromUtf8(dbus_message_get_error_name(reply));
            const char* text = nullptr;
            if (dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID))
                call.answer.errorMessage = QString::fromUtf8(text);
        }
        dbus_message_unref(reply);
    }
}

void FuzzClient::vanish()
{
    m_gone = true;
    close();
}

void FuzzClient::pump()
{
    if (!m_connection)
        return;
    dbus_connection_read_write(m_connection, 0);
    while (dbus_connection_dispatch(m_connection) == DBUS_DISPATCH_DATA_REMAINS) {
    }
    collectAnswers();
}

void FuzzClient::close()
{
    m_notifier.reset();
    for (Call& call : m_calls) {
        if (call.pending) {
            dbus_pending_call_cancel(call.pending);
            dbus_pending_call_unref(call.pending);
            call.pending = nullptr;
        }
    }
    if (m_connection) {
        dbus_connection_close(m_connection);
        dbus_connection_unref(m_connection);
        m_connection = nullptr;
    }
}
