// Floods that a holder of the token can send a real brinmoor-server, and what each costs
// it: the server's peak RSS, and whether the agent connected to it stayed connected.
//   bench_relay_floods [--acks N] [--log-agents N] [--log-mb N] [--slow-clients N]
//                      [--slow-mb N] [--message-bytes N] [--script-readers N] [--bin DIR]
// - acks: a client sends N "terminal.ack" for as many session ids, then leaves.
// - logs: N agent ids each say `--log-mb` MB of "task.log" lines and go.
// - slow clients: N clients stop reading while the agent says `--slow-mb` MB in
//   messages of `--message-bytes`.
// - script readers: N browsers ask for the largest script of the web client and read it
//   at 8 KiB a second, once taking compression and once not.
// A count of 0 skips its flood. --bin takes the server from another build.
#include "base/open_file_limit.h"
#include "process_stats.h"
#include "websocket_client.h"
#include "websocket_frames.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpSocket>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace brinmoor;
using namespace brinmoor::bench;
namespace ws = brinmoor::relay::ws;

namespace {

const QByteArray kToken = "flood-bench-token-0123456789abcdef";
constexpr double kTargetMB = 64;
// No flood may take longer than this; what it reached by then is reported.
constexpr qint64 kFloodDeadlineMs = 120'000;
QString g_bin;

// Runs the event loop until the condition holds or the time is up; whether it holds.
bool runUntil(const std::function<bool()>& done, qint64 timeoutMs = kFloodDeadlineMs)
{
    QElapsedTimer elapsed;
    elapsed.start();
    while (!done()) {
        if (elapsed.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    }
    return true;
}

// A brinmoor-server on 127.0.0.1 and a free port; its log lines are kept.
struct Server {
    QProcess process;
    quint16 port = 0;
    QByteArray output;

    bool start()
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("BRINMOOR_SHARED_TOKEN"), QString::fromLatin1(kToken));
        env.insert(QStringLiteral("BRINMOOR_SERVER_PORT"), QStringLiteral("0"));
        env.insert(QStringLiteral("BRINMOOR_SERVER_BIND"), QStringLiteral("127.0.0.1"));
        process.setProcessEnvironment(env);
        process.start(g_bin + QStringLiteral("/brinmoor-server"), QStringList());
        if (!process.waitForReadyRead(10000)) {
            std::fprintf(stderr, "brinmoor-server did not start\n");
            return false;
        }
        const QByteArray first = process.readLine().trimmed();
        port = quint16(first.mid(first.indexOf('=') + 1).toUInt());
        QObject::connect(&process, &QProcess::readyReadStandardOutput, &process,
                         [this] { output += process.readAllStandardOutput(); });
        return true;
    }
    double peakMB() const { return peakRssMB(process.processId()); }
    int linesStarting(QByteArrayView start) const
    {
        int n = 0;
        for (const QByteArray& line : output.split('\n'))
            n += line.startsWith(start) ? 1 : 0;
        return n;
    }
    ~Server()
    {
        process.kill();
        process.waitForFinished();
    }
};

// One end of a WebSocket on a raw socket: an agent or a client that reads what it is
// sent (answering pings, as every peer does), or a client that stops reading.
class Peer : public QObject {
public:
    std::function<void(const QJsonObject&)> onMessage;
    QTcpSocket socket;
    qint64 acked = 0; // an agent's: the seq the relay confirmed last

    Peer(quint16 port, const QByteArray& path)
    {
        socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
        QObject::connect(&socket, &QTcpSocket::readyRead, this, [this] { read(); });
        QObject::connect(&socket, &QTcpSocket::disconnected, this, [this] { m_closed = true; });
        socket.connectToHost(QHostAddress::LocalHost, port);
        socket.write(ws::upgradeRequest(path, QByteArray("Authorization: Bearer " + kToken + "\r\n")));
    }
    static std::unique_ptr<Peer> agent(quint16 port, const QString& agentId)
    {
        return std::make_unique<Peer>(port, "/v1/ws/agent?agentId=" + agentId.toUtf8());
    }
    static std::unique_ptr<Peer> client(quint16 port) { return std::make_unique<Peer>(port, "/v1/ws/client"); }

    bool waitUpgraded()
    {
        return runUntil([this] { return m_upgraded || m_closed; }, 10'000) && m_upgraded;
    }
    bool isOpen() const { return m_upgraded && !m_closed && m_closeCode == 0; }
    quint16 closeCode() const { return m_closeCode; }
    const QByteArray& closeReason() const { return m_closeReason; }
    // From now on nothing more is taken from the kernel: the relay's writes pile up.
    void stopReading() { socket.setReadBufferSize(1); }

    void send(const QByteArray& text) { socket.write(ws::maskedFrame(ws::Text, text)); }
    void send(const QJsonObject& message) { send(QJsonDocument(message).toJson(QJsonDocument::Compact)); }
    // Sends what it was given, waiting while the socket holds more than `bound` unsent.
    bool waitWritten(qint64 bound = 0)
    {
        return runUntil([&] { return socket.bytesToWrite() <= bound || m_closed; }) && !m_closed;
    }

private:
    void read()
    {
        m_in += socket.readAll();
        if (!m_upgraded) {
            const qsizetype end = m_in.indexOf("\r\n\r\n");
            if (end < 0)
                return;
            if (!m_in.startsWith("HTTP/1.1 101")) {
                std::fprintf(stderr, "handshake refused: %s\n", m_in.left(end).constData());
                m_closed = true;
                return;
            }
            m_in.remove(0, end + 4);
            m_upgraded = true;
        }
        qsizetype offset = 0;
        ws::Message message;
        while (m_reader.next(m_in, offset, message) == ws::FrameReader::Result::Message) {
            if (message.opcode == ws::Ping) {
                socket.write(ws::maskedFrame(ws::Pong, message.payload));
            } else if (message.opcode == ws::Close) {
                if (message.payload.size() >= 2)
                    m_closeCode = quint16((quint8(message.payload[0]) << 8) | quint8(message.payload[1]));
                m_closeReason = message.payload.sliced(std::min<qsizetype>(2, message.payload.size())).toByteArray();
            } else if (message.opcode == ws::Text) {
                const QJsonObject object = QJsonDocument::fromJson(message.payload.toByteArray()).object();
                if (object.value(QStringLiteral("type")).toString() == QLatin1String("agent.ack"))
                    acked = object.value(QStringLiteral("payload")).toObject().value(QStringLiteral("seq")).toInteger();
                if (onMessage)
                    onMessage(object);
            }
        }
        m_in.remove(0, offset);
    }

    QByteArray m_in;
    ws::FrameReader m_reader{64 * 1024 * 1024, false};
    bool m_upgraded = false;
    bool m_closed = false;
    quint16 m_closeCode = 0;
    QByteArray m_closeReason;
};

// A "task.log" message of about `size` bytes.
QByteArray logLine(qint64 n, qsizetype size)
{
    QByteArray message = "{\"type\":\"task.log\",\"taskId\":\"flood\",\"line\":\"" + QByteArray::number(n) + ' ';
    message += QByteArray(std::max<qsizetype>(0, size - message.size() - 2), 'x');
    return message + "\"}";
}

// An agent that numbers its messages from 1 says `bytes` of log lines, never more than
// `inFlight` ahead of the relay's confirmation; false when it is let go meanwhile.
bool sayLogLines(Peer& agent, qint64 bytes, qsizetype lineSize, qint64 inFlight = 4 * 1024 * 1024)
{
    agent.send(QByteArray(R"({"type":"agent.stream","first":1,"next":1})"));
    const qint64 lines = std::max<qint64>(1, bytes / lineSize);
    const qint64 window = std::max<qint64>(1, inFlight / lineSize);
    qint64 sent = 0;
    QByteArray batch;
    return runUntil([&] {
               if (!agent.isOpen())
                   return true;
               while (sent < lines && sent - agent.acked < window && agent.socket.bytesToWrite() < 1024 * 1024) {
                   batch.clear();
                   for (int i = 0; i < 64 && sent < lines; ++i)
                       ws::appendMaskedFrame(batch, ws::Text, logLine(++sent, lineSize));
                   agent.socket.write(batch);
               }
               return agent.acked >= lines;
           }) &&
           agent.isOpen();
}

// Whether the agent still takes commands: a new client creates a task for it.
bool agentAnswers(Server& server, Peer& agent, const QString& agentId)
{
    bool assigned = false;
    agent.onMessage = [&](const QJsonObject& message) {
        assigned = assigned || message.value(QStringLiteral("type")).toString() == QLatin1String("task.assign");
    };
    const auto client = Peer::client(server.port);
    if (!client->waitUpgraded())
        return false;
    client->send(
        QJsonObject{{QStringLiteral("type"), QStringLiteral("task.create")},
                    {QStringLiteral("agentId"), agentId},
                    {QStringLiteral("payload"), QJsonObject{{QStringLiteral("prompt"), QStringLiteral("x")}}}});
    runUntil([&] { return assigned || !agent.isOpen(); }, 20'000);
    agent.onMessage = nullptr;
    return assigned && agent.isOpen();
}

QString agentState(const Peer& agent, bool answers)
{
    if (answers)
        return QStringLiteral("stayed connected");
    if (agent.closeCode() != 0)
        return QStringLiteral("was DROPPED (%1 \"%2\")")
            .arg(agent.closeCode())
            .arg(QString::fromUtf8(agent.closeReason()));
    return QStringLiteral("was LOST");
}

void report(const char* flood, double peak, double before, const Peer& agent, bool answers, const QString& more)
{
    std::printf("%s: server peak RSS %.1f MB (%.1f MB before); the agent %s; %s\n", flood, peak, before,
                qPrintable(agentState(agent, answers)), qPrintable(more));
    std::printf("target: peak RSS < %.0f MB and the agent connected %s\n", kTargetMB,
                peak < kTargetMB && answers ? "met" : "MISSED");
}

// A client says "terminal.ack" for `count` sessions the agent never opened (and for the
// one it did), then leaves.
void ackFlood(int count)
{
    Server server;
    if (!server.start())
        return;
    const double before = server.peakMB();
    const QString agentId = QStringLiteral("flood-agent");
    const auto agent = Peer::agent(server.port, agentId);
    if (!agent->waitUpgraded())
        return;
    agent->send(QByteArray(R"({"type":"agent.stream","first":1,"next":1})"));
    agent->send(
        QByteArray(R"({"type":"terminal.opened","sessionId":"open-1","projectPath":"/p","mode":"interactive"})"));
    const auto client = Peer::client(server.port);
    if (!client->waitUpgraded())
        return;
    bool answered = false;
    client->onMessage = [&](const QJsonObject& message) {
        answered = answered || message.value(QStringLiteral("requestId")).toString() == QLatin1String("end");
    };
    QElapsedTimer elapsed;
    elapsed.start();
    QByteArray batch;
    for (int i = 0; i < count; ++i) {
        const QByteArray session = i % 1000 == 0 ? QByteArray("open-1") : "flood-" + QByteArray::number(i);
        const QByteArray ack = R"({"type":"terminal.ack","agentId":"flood-agent","payload":{"sessionId":")" + session +
                               R"(","offset":)" + QByteArray::number(i) + "}}";
        ws::appendMaskedFrame(batch, ws::Text, ack);
        if (batch.size() > 256 * 1024 || i + 1 == count) {
            client->socket.write(batch);
            batch.clear();
            if (!client->waitWritten(1024 * 1024))
                break;
        }
    }
    client->send(QByteArray(R"({"type":"flood.end","requestId":"end"})"));
    runUntil([&] { return answered || !client->isOpen(); });
    const double sendSeconds = double(elapsed.elapsed()) / 1000.0;
    client->socket.disconnectFromHost();
    const bool answers = agentAnswers(server, *agent, agentId);
    report("terminal.ack flood", server.peakMB(), before, *agent, answers,
           QStringLiteral("%1 acks for distinct sessions taken in %2 s, then the client left")
               .arg(count)
               .arg(sendSeconds, 0, 'f', 2));
}

// `agents` agent ids each say `mb` MB of log lines and leave; their logs stay.
void logFlood(int agents, int mb)
{
    Server server;
    if (!server.start())
        return;
    const double before = server.peakMB();
    const QString agentId = QStringLiteral("flood-agent");
    const auto agent = Peer::agent(server.port, agentId);
    if (!agent->waitUpgraded())
        return;
    QElapsedTimer elapsed;
    elapsed.start();
    int said = 0;
    for (int i = 0; i < agents; ++i) {
        const auto other = Peer::agent(server.port, QStringLiteral("flood-log-%1").arg(i));
        if (!other->waitUpgraded() || !sayLogLines(*other, qint64(mb) * 1024 * 1024, 64 * 1024))
            break;
        ++said;
        other->socket.disconnectFromHost();
    }
    const double seconds = double(elapsed.elapsed()) / 1000.0;
    const bool answers = agentAnswers(server, *agent, agentId);
    report("event log flood", server.peakMB(), before, *agent, answers,
           QStringLiteral("%1 of %2 agent ids said %3 MiB each in 64 KiB lines, in %4 s")
               .arg(said)
               .arg(agents)
               .arg(mb)
               .arg(seconds, 0, 'f', 2));
}

// `clients` clients stop reading while the agent says `mb` MB in messages of
// `messageBytes`.
void slowClientFlood(int clients, int mb, int messageBytes)
{
    Server server;
    if (!server.start())
        return;
    const double before = server.peakMB();
    const QString agentId = QStringLiteral("flood-agent");
    const auto agent = Peer::agent(server.port, agentId);
    if (!agent->waitUpgraded())
        return;
    std::vector<std::unique_ptr<Peer>> readers;
    for (int i = 0; i < clients; ++i) {
        readers.push_back(Peer::client(server.port));
        if (!readers.back()->waitUpgraded())
            return;
        readers.back()->stopReading();
    }
    QElapsedTimer elapsed;
    elapsed.start();
    const bool said = sayLogLines(*agent, qint64(mb) * 1024 * 1024, messageBytes);
    const double seconds = double(elapsed.elapsed()) / 1000.0;
    // The clients dropped meanwhile say so in the log.
    runUntil([&] { return server.linesStarting("client.") >= clients; }, 2'000);
    const int dropped = server.linesStarting("client.dropped");
    const bool answers = said && agentAnswers(server, *agent, agentId);
    report("slow client flood", server.peakMB(), before, *agent, answers,
           QStringLiteral("%1 clients that never read while the agent said %2 MiB in %3-byte messages (%4 s); "
                          "%5 of them dropped as too slow")
               .arg(clients)
               .arg(mb)
               .arg(messageBytes)
               .arg(seconds, 0, 'f', 2)
               .arg(dropped));
}

// The biggest script of the built web client, by URL path.
QByteArray biggestScript()
{
    const QDir assets(QStringLiteral(BRINMOOR_WEB_DIST "/assets"));
    QFileInfo biggest;
    for (const QFileInfo& file : assets.entryInfoList({QStringLiteral("*.js")}, QDir::Files)) {
        if (file.size() > biggest.size())
            biggest = file;
    }
    return biggest.exists() ? "/assets/" + biggest.fileName().toUtf8() : QByteArray();
}

// `readers` browsers ask for the biggest script at once and read it at 8 KiB a second.
void scriptReaders(int readers, const QByteArray& acceptEncoding)
{
    const QByteArray path = biggestScript();
    if (path.isEmpty()) {
        std::fprintf(stderr, "no script in " BRINMOOR_WEB_DIST "/assets\n");
        return;
    }
    Server server;
    if (!server.start())
        return;
    const double before = server.peakMB();
    const QString agentId = QStringLiteral("flood-agent");
    const auto agent = Peer::agent(server.port, agentId);
    if (!agent->waitUpgraded())
        return;
    // Plain sockets with a small receive buffer, as on a slow link: what the reader has
    // not taken waits in the server, not in the kernel. They come from 16 loopback
    // addresses, so that the cap on connections without a token per address does not
    // cut them off.
    std::vector<int> sockets;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const QByteArray request = "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + acceptEncoding + "\r\n";
    for (int i = 0; i < readers; ++i) {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        const int small = 4096;
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in from{};
        from.sin_family = AF_INET;
        from.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 256 + quint32(i % 16));
        if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&from), sizeof from) != 0 ||
            ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::send(fd, request.constData(), size_t(request.size()), 0) != request.size()) {
            std::fprintf(stderr, "reader %d could not ask\n", i);
            if (fd >= 0)
                ::close(fd);
            break;
        }
        sockets.push_back(fd);
    }
    // Every 125 ms each takes 1 KiB, for 3 s.
    qint64 total = 0;
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, &tick, [&] {
        for (const int fd : sockets) {
            char buffer[1024];
            total += std::max<qint64>(::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT), 0);
        }
    });
    tick.start(125);
    QElapsedTimer elapsed;
    elapsed.start();
    runUntil([&] { return elapsed.elapsed() >= 3'000; });
    tick.stop();
    for (const int fd : sockets)
        ::close(fd);
    const bool answers = agentAnswers(server, *agent, agentId);
    report(acceptEncoding.isEmpty() ? "script readers (no Accept-Encoding)" : "script readers (gzip, deflate, br)",
           server.peakMB(), before, *agent, answers,
           QStringLiteral("%1 readers of %2 taking 8 KiB/s; %3 KiB read in all")
               .arg(sockets.size())
               .arg(QString::fromUtf8(path))
               .arg(total / 1024));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int acks = 200'000;
    int logAgents = 6;
    int logMB = 70;
    int slowClients = 500;
    int slowMB = 12;
    int messageBytes = 1024;
    int scriptReaderCount = 256;
    g_bin = QCoreApplication::applicationDirPath();
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        const int value = args[i + 1].toInt();
        if (args[i] == QLatin1String("--acks"))
            acks = value;
        else if (args[i] == QLatin1String("--log-agents"))
            logAgents = value;
        else if (args[i] == QLatin1String("--log-mb"))
            logMB = value;
        else if (args[i] == QLatin1String("--slow-clients"))
            slowClients = value;
        else if (args[i] == QLatin1String("--slow-mb"))
            slowMB = value;
        else if (args[i] == QLatin1String("--message-bytes"))
            messageBytes = std::max(64, value);
        else if (args[i] == QLatin1String("--script-readers"))
            scriptReaderCount = value;
        else if (args[i] == QLatin1String("--bin"))
            g_bin = args[i + 1];
    }
    // Hundreds of sockets, more than a default soft limit allows.
    raiseOpenFileLimit();
    if (acks > 0)
        ackFlood(acks);
    if (logAgents > 0)
        logFlood(logAgents, logMB);
    if (slowClients > 0)
        slowClientFlood(slowClients, slowMB, messageBytes);
    if (scriptReaderCount > 0) {
        scriptReaders(scriptReaderCount, {});
        scriptReaders(scriptReaderCount, "Accept-Encoding: gzip, deflate, br\r\n");
    }
    return 0;
}
