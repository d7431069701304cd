#include "support/loopback_server.h"

#include "protocol/server_features.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QJsonDocument>
#include <QTimer>
#include <QWebSocket>
#include <QWebSocketServer>

namespace brinmoor::test {

LoopbackServer::LoopbackServer(QObject* parent) : QObject(parent)
{
    m_server = new QWebSocketServer(QStringLiteral("loopback"), QWebSocketServer::NonSecureMode, this);
    connect(m_server, &QWebSocketServer::newConnection, this, &LoopbackServer::onNewConnection);
}

LoopbackServer::~LoopbackServer()
{
    close();
}

bool LoopbackServer::listen(quint16 port)
{
    return m_server->listen(QHostAddress::LocalHost, port);
}

void LoopbackServer::close()
{
    if (m_client)
        m_client->abort();
    m_server->close();
}

quint16 LoopbackServer::port() const
{
    return m_server->serverPort();
}

QString LoopbackServer::serverURL() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(port());
}

void LoopbackServer::onNewConnection()
{
    while (QWebSocket* socket = m_server->nextPendingConnection()) {
        ++m_connectionCount;
        m_lastRequestURL = socket->requestUrl();
        const QNetworkRequest request = socket->request();
        if (request.hasRawHeader("Authorization"))
            m_lastAuthorization = request.rawHeader("Authorization");
        else
            m_lastAuthorization.reset();
        if (m_client)
            m_client->deleteLater();
        m_client = socket;
        socket->setParent(this);
        connect(socket, &QWebSocket::textMessageReceived, this, &LoopbackServer::onMessage);
        connect(socket, &QWebSocket::disconnected, this, [this, socket] {
            m_lastCloseCode = int(socket->closeCode());
            socket->deleteLater();
        });
        m_nextSeq = 0;
        m_streaming = false;
        ServerFeatures features = m_features;
        features.serverHas = m_newestSeq;
        send(features.hello());
        for (const QJsonObject& message : std::as_const(m_greeting))
            send(message);
    }
}

void LoopbackServer::onMessage(const QString& text)
{
    const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
    if (message.value(QStringLiteral("type")).toString() == QLatin1String("agent.stream")) {
        m_streams.append(message);
        m_streaming = true;
        m_nextSeq = message.value(QStringLiteral("next")).toInteger();
        return;
    }
    if (!m_streaming) {
        m_preludes.append(message);
        return;
    }
    const qint64 seq = m_nextSeq > 0 ? m_nextSeq++ : 0;
    m_messages.append(message);
    m_seqs.append(seq);
    if (!m_acknowledging || seq == 0)
        return;
    // What it confirms it also names in its next hello.
    m_newestSeq = std::max(m_newestSeq, seq);
    send(QJsonObject{{QStringLiteral("type"), QStringLiteral("agent.ack")},
                     {QStringLiteral("payload"), QJsonObject{{QStringLiteral("seq"), seq}}}});
}

QList<QJsonObject> LoopbackServer::messagesOfType(const QString& type, const QString& taskId) const
{
    QList<QJsonObject> found;
    for (const QJsonObject& message : m_messages) {
        if (message.value(QStringLiteral("type")).toString() != type)
            continue;
        if (!taskId.isEmpty() && message.value(QStringLiteral("taskId")).toString() != taskId)
            continue;
        found.append(message);
    }
    return found;
}

QString LoopbackServer::trace() const
{
    QStringList lines;
    for (const QJsonObject& message : m_messages) {
        const QString type = message.value(QStringLiteral("type")).toString();
        if (type == QLatin1String("task.log"))
            lines.append(type + QLatin1Char(' ') + message.value(QStringLiteral("line")).toString());
        else
            lines.append(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
    }
    return lines.join(QLatin1Char('\n'));
}

std::optional<QJsonObject> LoopbackServer::waitFor(const std::function<bool(const QJsonObject&)>& match, int timeoutMs,
                                                   int skip)
{
    std::optional<QJsonObject> found;
    waitUntil(
        [&] {
            int seen = 0;
            for (const QJsonObject& message : m_messages) {
                if (match(message) && seen++ == skip) {
                    found = message;
                    return true;
                }
            }
            return false;
        },
        timeoutMs);
    return found;
}

std::optional<QJsonObject> LoopbackServer::waitForType(const QString& type, int timeoutMs)
{
    return waitFor([&](const QJsonObject& m) { return m.value(QStringLiteral("type")).toString() == type; }, timeoutMs);
}

std::optional<QJsonObject> LoopbackServer::waitForTask(const QString& type, const QString& taskId, int timeoutMs)
{
    return waitFor(
        [&](const QJsonObject& m) {
            return m.value(QStringLiteral("type")).toString() == type &&
                   m.value(QStringLiteral("taskId")).toString() == taskId;
        },
        timeoutMs);
}

bool LoopbackServer::waitForConnections(int count, int timeoutMs)
{
    return waitUntil([&] { return m_connectionCount >= count && !m_client.isNull(); }, timeoutMs);
}

void LoopbackServer::send(const QJsonObject& message)
{
    sendText(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

void LoopbackServer::sendText(const QString& text)
{
    if (m_client)
        m_client->sendTextMessage(text);
}

void LoopbackServer::closeClient()
{
    if (m_client)
        m_client->close();
}

void waitForTimerTicks(int intervalMs, int ticks)
{
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    int fired = 0;
    QObject::connect(&timer, &QTimer::timeout, &timer, [&fired] { ++fired; });
    timer.start(intervalMs);
    waitUntil([&] { return fired >= ticks; }, 60000);
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

int openDescriptorCount()
{
    return int(
        QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size());
}

QList<qint64> allProcesses()
{
    QList<qint64> pids;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        bool isPid = false;
        const qint64 pid = entry.toLongLong(&isPid);
        if (isPid)
            pids.append(pid);
    }
    return pids;
}

QList<qint64> childProcesses(qint64 parent)
{
    QList<qint64> children;
    const qint64 self = parent > 0 ? parent : QCoreApplication::applicationPid();
    for (const qint64 pid : allProcesses()) {
        QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray line = stat.readAll();
        // pid (comm) state ppid …: comm may hold blanks, so read after the last ')'.
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 1 && fields[1].toLongLong() == self)
            children.append(pid);
    }
    return children;
}

bool processAlive(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray line = stat.readAll();
    const QByteArray rest = line.mid(line.lastIndexOf(')') + 2);
    return !rest.startsWith('Z');
}

} // namespace brinmoor::test
