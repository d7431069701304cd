// Relay throughput and added latency: an agent streams "task.log" lines through a real
// brinmoor-server to one client. Both ends are raw WebSocket peers in this process, far
// cheaper than the server, so the server is what is measured.
//   bench_relay [--messages N]
// The same paced streams also run over one direct loopback connection, without the
// server; the difference is the latency the server adds.
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

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    g_clock.start();
    qint64 messages = 3'000'000;
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1String("--messages"))
            messages = args[i + 1].toLongLong();
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

    QProcess server;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("BRINMOOR_SHARED_TOKEN"), QStringLiteral("bench"));
    env.insert(QStringLiteral("BRINMOOR_SERVER_PORT"), QStringLiteral("0"));
    env.insert(QStringLiteral("BRINMOOR_SERVER_BIND"), QStringLiteral("127.0.0.1"));
    server.setProcessEnvironment(env);
    server.start(QCoreApplication::applicationDirPath() + QStringLiteral("/brinmoor-server"), QStringList());
    if (!server.waitForReadyRead(10000)) {
        std::fprintf(stderr, "brinmoor-server did not start\n");
        return 1;
    }
    const QByteArray first = server.readLine().trimmed();
    const quint16 port = quint16(first.mid(first.indexOf('=') + 1).toUInt());
    // Its further output is not needed; keep the pipe drained.
    QObject::connect(&server, &QProcess::readyReadStandardOutput, &server, [&] { server.readAllStandardOutput(); });

    Peer agent(new QTcpSocket);
    Peer client(new QTcpSocket);
    agent.socket->connectToHost(QHostAddress::LocalHost, port);
    client.socket->connectToHost(QHostAddress::LocalHost, port);
    agent.handshake("/v1/ws/agent?agentId=bench", "bench");
    client.handshake("/v1/ws/client", "bench");
    Received received;
    client.onText = [&](QByteArrayView text) { received.take(text); };
    runUntil([&] { return agent.upgraded() && client.upgraded(); });

    const double cpuBefore = cpuSeconds(server.processId());
    const double seconds = stream(agent, received, messages, 20'000);
    const double serverCpu = cpuSeconds(server.processId()) - cpuBefore;
    const double rate = double(messages) / seconds;
    std::printf("relay throughput: %lld task.log messages in %.2f s = %.0f messages/s; server CPU %.2f s (%.0f%% of "
                "one core), peak RSS %.1f MB\n",
                static_cast<long long>(messages), seconds, rate, serverCpu, 100.0 * serverCpu / seconds,
                peakRssMB(server.processId()));
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
    server.kill();
    server.waitForFinished();
    return 0;
}
