// Relay throughput and added latency: an agent streams "task.log" lines through a real
// brinmoor-server to one client. Both ends are raw WebSocket peers in this process, far
// cheaper than the server, so the server is what is measured.
//   bench_relay [--messages N] [--flood-connections N]
// The same paced streams also run over one direct loopback connection, without the
// server; the difference is the latency the server adds. Then a fresh server takes a
// flood of connections without a token, each sending a 16 MiB request, while a client
// with the token keeps asking for the agent list: its peak memory is the figure.
// --messages 0 runs only the flood.
#include "base/open_file_limit.h"
#include "process_stats.h"
#include "websocket_client.h"
#include "websocket_frames.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

using namespace brinmoor;
using namespace brinmoor::bench;

namespace {

QElapsedTimer g_clock;

// One end of a WebSocket: writes masked frames (as an agent does) and reads frames.
class Peer : public QObject {
public:
    std::function<void(QByteArrayView text)> onText;
    std::function<void()> onReady;
    QTcpSocket* socket;

    explicit Peer(QTcpSocket* s) : socket(s)
    {
        socket->setParent(this);
        // Small writes go out at once, as the agent's and the phone's do.
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        QObject::connect(socket, &QTcpSocket::connected, this,
                         [this] { socket->setSocketOption(QAbstractSocket::LowDelayOption, 1); });
        QObject::connect(socket, &QTcpSocket::readyRead, this, [this] { read(); });
    }

    void handshake(const QByteArray& path, const QByteArray& token)
    {
        socket->write(relay::ws::upgradeRequest(path, QByteArray("Authorization: Bearer " + token + "\r\n")));
    }
    void skipHandshake() { m_upgraded = true; }
    bool upgraded() const { return m_upgraded; }

    // Appends one masked text frame (mask key zero: the server still does the work).
    static void appendFrame(QByteArray& out, QByteArrayView payload)
    {
        static constexpr char kZeroMask[4] = {};
        relay::ws::appendMaskedFrame(out, relay::ws::Text, payload, kZeroMask);
    }

private:
    void read()
    {
        m_in += socket->readAll();
        if (!m_upgraded) {
            const qsizetype end = m_in.indexOf("\r\n\r\n");
            if (end < 0)
                return;
            if (!m_in.startsWith("HTTP/1.1 101")) {
                std::fprintf(stderr, "handshake refused: %s\n", m_in.left(end).constData());
                QCoreApplication::exit(1);
                return;
            }
            m_in.remove(0, end + 4);
            m_upgraded = true;
            if (onReady)
                onReady();
        }
        qsizetype offset = 0;
        relay::ws::Message message;
        while (m_reader.next(m_in, offset, message) == relay::ws::FrameReader::Result::Message) {
            if (message.opcode == relay::ws::Text && onText)
                onText(message.payload);
        }
        m_in.remove(0, offset);
    }

    QByteArray m_in;
    relay::ws::FrameReader m_reader{64 * 1024 * 1024, false};
    bool m_upgraded = false;
};

// A log line as a build prints it, carrying its sequence number and send time.
void appendLogMessage(QByteArray& out, qint64 sequence)
{
    char payload[200];
    const int n = std::snprintf(payload, sizeof payload,
                                "{\"type\":\"task.log\",\"taskId\":\"bench\",\"line\":\"%lld %lld [ 42%%] Building CXX "
                                "object src/agent/CMakeFiles/core.dir/module.cpp.o\"}",
                                static_cast<long long>(sequence), static_cast<long long>(g_clock.nsecsElapsed()));
    Peer::appendFrame(out, QByteArrayView(payload, n));
}

struct Received {
    qint64 count = 0;
    std::vector<double> latenciesMs;
    bool recordLatency = false;

    void take(QByteArrayView text)
    {
        const qsizetype at = text.indexOf("\"line\":\"");
        if (at < 0)
            return;
        const char* p = text.data() + at + 8;
        char* end = nullptr;
        std::strtoll(p, &end, 10);
        const long long sent = std::strtoll(end, nullptr, 10);
        ++count;
        if (recordLatency)
            latenciesMs.push_back(double(g_clock.nsecsElapsed() - sent) / 1e6);
    }
};

double percentile(std::vector<double> values, double fraction)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(fraction * double(values.size())))];
}

// Runs the event loop until the condition holds.
void runUntil(const std::function<bool()>& done)
{
    while (!done())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
}

// Streams `total` messages as fast as the receiver keeps up (at most `window` in flight).
double stream(Peer& sender, Received& received, qint64 total, qint64 window)
{
    qint64 sent = 0;
    const qint64 start = received.count;
    QByteArray batch;
    auto pump = [&] {
        while (sent < total && sent - (received.count - start) < window) {
            batch.clear();
            for (int i = 0; i < 500 && sent < total; ++i)
                appendLogMessage(batch, sent++);
            sender.socket->write(batch);
        }
    };
    QElapsedTimer elapsed;
    elapsed.start();
    QTimer poll;
    poll.setInterval(1);
    QObject::connect(&poll, &QTimer::timeout, &poll, pump);
    poll.start();
    pump();
    runUntil([&] {
        pump();
        return received.count - start >= total;
    });
    return double(elapsed.nsecsElapsed()) / 1e9;
}

// Sends `rate` messages a second, a thousandth of them every millisecond, for `seconds`.
void paced(Peer& sender, Received& received, int rate, double seconds)
{
    received.latenciesMs.clear();
    received.recordLatency = true;
    const qint64 start = received.count;
    const qint64 total = qint64(rate * seconds);
    qint64 sent = 0;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(1);
    QByteArray batch;
    QObject::connect(&tick, &QTimer::timeout, &tick, [&] {
        batch.clear();
        for (int i = 0; i < rate / 1000 && sent < total; ++i)
            appendLogMessage(batch, sent++);
        sender.socket->write(batch);
        sender.socket->flush();
    });
    tick.start();
    runUntil([&] { return received.count - start >= total; });
    received.recordLatency = false;
}

// A brinmoor-server on 127.0.0.1 and a free port; its further output is drained.
struct Server {
    QProcess process;
    quint16 port = 0;

    bool start()
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("BRINMOOR_SHARED_TOKEN"), QStringLiteral("bench"));
        env.insert(QStringLiteral("BRINMOOR_SERVER_PORT"), QStringLiteral("0"));
        env.insert(QStringLiteral("BRINMOOR_SERVER_BIND"), QStringLiteral("127.0.0.1"));
        process.setProcessEnvironment(env);
        process.start(QCoreApplication::applicationDirPath() + QStringLiteral("/brinmoor-server"), QStringList());
        if (!process.waitForReadyRead(10000)) {
            std::fprintf(stderr, "brinmoor-server did not start\n");
            return false;
        }
        const QByteArray first = process.readLine().trimmed();
        port = quint16(first.mid(first.indexOf('=') + 1).toUInt());
        QObject::connect(&process, &QProcess::readyReadStandardOutput, &process,
                         [this] { process.readAllStandardOutput(); });
        return true;
    }
    ~Server()
    {
        process.kill();
        process.waitForFinished();
    }
};

// One connection of the flood: a request head without a token announcing a 16 MiB
// body, then the body, written as fast as the server takes it.
class FloodConnection : public QObject {
public:
    static constexpr qint64 kBodySize = 16 * 1024 * 1024;
    QTcpSocket socket;
    qint64 sent = 0;
    bool done = false;

    FloodConnection(quint16 port, const QHostAddress& from, const QByteArray& chunk) : m_chunk(chunk)
    {
        socket.bind(from);
        QObject::connect(&socket, &QTcpSocket::connected, this, [this] {
            socket.write("POST /v1/approvals HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n"
                         "Content-Length: " +
                         QByteArray::number(kBodySize) + "\r\n\r\n");
            pump();
        });
        QObject::connect(&socket, &QTcpSocket::bytesWritten, this, [this] { pump(); });
        QObject::connect(&socket, &QTcpSocket::readyRead, this, [this] { socket.readAll(); });
        QObject::connect(&socket, &QTcpSocket::disconnected, this, [this] { done = true; });
        QObject::connect(&socket, &QTcpSocket::errorOccurred, this, [this] { done = true; });
        socket.connectToHost(QHostAddress::LocalHost, port);
    }

private:
    void pump()
    {
        while (sent < kBodySize && socket.bytesToWrite() < m_chunk.size() &&
               socket.state() == QAbstractSocket::ConnectedState) {
            const qint64 n = std::min<qint64>(m_chunk.size(), kBodySize - sent);
            socket.write(m_chunk.constData(), n);
            sent += n;
        }
    }

    QByteArray m_chunk;
};

// The relay's peak memory while `connections` peers without a token each send a
// 16 MiB request, and how a client with the token fares meanwhile. The peers come from
// many loopback addresses, as from many machines, so that the cap per address is not
// all that holds them back.
void flood(int connections)
{
    constexpr int kFloodAddresses = 50;
    Server server;
    if (!server.start())
        return;
    const double before = peakRssMB(server.process.processId());
    const QByteArray chunk(64 * 1024, 'x');
    std::vector<std::unique_ptr<FloodConnection>> peers;
    QElapsedTimer elapsed;
    elapsed.start();
    for (int i = 0; i < connections; ++i)
        peers.push_back(std::make_unique<FloodConnection>(
            server.port, QHostAddress(QStringLiteral("127.0.1.%1").arg(1 + i % kFloodAddresses)), chunk));

    // The real user: one request with the token at a time, for as long as the flood lasts.
    int asked = 0;
    int served = 0;
    std::unique_ptr<QTcpSocket> user;
    QByteArray userAnswer;
    auto ask = [&] {
        user = std::make_unique<QTcpSocket>();
        userAnswer.clear();
        ++asked;
        QObject::connect(user.get(), &QTcpSocket::readyRead, user.get(), [&] { userAnswer += user->readAll(); });
        user->connectToHost(QHostAddress::LocalHost, server.port);
        user->write("GET /v1/agents HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer bench\r\n\r\n");
    };
    ask();
    const auto floodOver = [&] {
        return std::all_of(peers.begin(), peers.end(), [](const auto& peer) { return peer->done; });
    };
    runUntil([&] {
        if (user->state() == QAbstractSocket::UnconnectedState) {
            userAnswer += user->readAll();
            served += userAnswer.startsWith("HTTP/1.1 200 OK") ? 1 : 0;
            if (!floodOver())
                ask();
        }
        return (floodOver() && user->state() == QAbstractSocket::UnconnectedState) || elapsed.elapsed() > 60'000;
    });
    const double seconds = double(elapsed.elapsed()) / 1000.0;
    const double peak = peakRssMB(server.process.processId());
    qint64 sent = 0;
    int cutOff = 0;
    for (const auto& peer : peers) {
        sent += peer->sent;
        cutOff += peer->done && peer->sent < FloodConnection::kBodySize ? 1 : 0;
    }
    std::printf("unauthenticated flood: %d connections from %d addresses each sending a 16 MiB request without a "
                "token; server peak RSS %.1f MB (%.1f MB before); %.0f MiB of the %d MiB offered got out before the "
                "server cut off %d senders, in %.2f s; with the token %d of %d requests served\n",
                connections, kFloodAddresses, peak, before, double(sent) / (1024.0 * 1024.0), connections * 16, cutOff,
                seconds, served, asked);
    std::printf("target: peak RSS < 64 MB %s\n", peak < 64 ? "met" : "MISSED");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    g_clock.start();
    qint64 messages = 3'000'000;
    int floodConnections = 500;
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1String("--messages"))
            messages = args[i + 1].toLongLong();
        else if (args[i] == QLatin1String("--flood-connections"))
            floodConnections = args[i + 1].toInt();
    }
    // The flood's sockets are many more than a default soft limit allows.
    raiseOpenFileLimit();
    if (messages <= 0) {
        flood(floodConnections);
        return 0;
    }
    const int rates[] = {10'000, 100'000};

    // The direct path: one loopback connection, no server.
    std::vector<std::pair<double, double>> direct;
    {
        QTcpServer listener;
        listener.listen(QHostAddress::LocalHost);
        Peer sender(new QTcpSocket);
        sender.socket->connectToHost(QHostAddress::LocalHost, listener.serverPort());
        runUntil([&] { return listener.hasPendingConnections(); });
        Peer receiver(listener.nextPendingConnection());
        sender.skipHandshake();
        receiver.skipHandshake();
        Received received;
        receiver.onText = [&](QByteArrayView text) { received.take(text); };
        for (int rate : rates) {
            paced(sender, received, rate, 2.0);
            direct.emplace_back(percentile(received.latenciesMs, 0.5), percentile(received.latenciesMs, 0.99));
        }
    }

    Server server;
    if (!server.start())
        return 1;
    const quint16 port = server.port;

    Peer agent(new QTcpSocket);
    Peer client(new QTcpSocket);
    agent.socket->connectToHost(QHostAddress::LocalHost, port);
    client.socket->connectToHost(QHostAddress::LocalHost, port);
    agent.handshake("/v1/ws/agent?agentId=bench", "bench");
    client.handshake("/v1/ws/client", "bench");
    Received received;
    client.onText = [&](QByteArrayView text) { received.take(text); };
    runUntil([&] { return agent.upgraded() && client.upgraded(); });

    const double cpuBefore = cpuSeconds(server.process.processId());
    const double seconds = stream(agent, received, messages, 20'000);
    const double serverCpu = cpuSeconds(server.process.processId()) - cpuBefore;
    const double rate = double(messages) / seconds;
    std::printf("relay throughput: %lld task.log messages in %.2f s = %.0f messages/s; server CPU %.2f s (%.0f%% of "
                "one core), peak RSS %.1f MB\n",
                static_cast<long long>(messages), seconds, rate, serverCpu, 100.0 * serverCpu / seconds,
                peakRssMB(server.process.processId()));
    bool latencyMet = true;
    for (size_t i = 0; i < std::size(rates); ++i) {
        paced(agent, received, rates[i], 2.0);
        const double median = percentile(received.latenciesMs, 0.5);
        const double p99 = percentile(received.latenciesMs, 0.99);
        const double addedMedian = median - direct[i].first;
        const double addedP99 = p99 - direct[i].second;
        latencyMet = latencyMet && addedP99 < 2.0;
        std::printf("latency at %d messages/s: through the server median %.3f ms, p99 %.3f ms; direct median %.3f ms, "
                    "p99 %.3f ms; added by the server median %.3f ms, p99 %.3f ms\n",
                    rates[i], median, p99, direct[i].first, direct[i].second, addedMedian, addedP99);
    }
    std::printf("targets: >= 300000 messages/s %s; added p99 < 2 ms %s\n", rate >= 300'000 ? "met" : "MISSED",
                latencyMet ? "met" : "MISSED");
    flood(floodConnections);
    return 0;
}
