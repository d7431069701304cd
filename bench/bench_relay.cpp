// Relay throughput and added latency: an agent streams "task.log" lines through a real
// brinmoor-server to one client, every one of them kept in the agent's event log. Both
// ends are raw WebSocket peers in this process, far cheaper than the server, so the
// server is what is measured. Every figure is taken over plain TCP and over TLS (a
// certificate made for the run), the two back to back in each of several rounds, since
// the machine is shared and its load changes.
//   bench_relay [--messages N] [--rounds N] [--flood-connections N] [--resume-lines N]
//               [--yes-seconds N] [--bin DIR]
// The same paced streams also run over one direct loopback connection, without the
// server; the difference is the latency the server adds. Then a fresh server takes a
// flood of connections without a token, each sending a 16 MiB request, while a client
// with the token keeps asking for the agent list: its peak memory is the figure. Then a
// client that comes back is given N logged lines (how fast), and a phone that reads at
// 1 MB/s follows `yes` in a terminal of a real agent for N seconds (the agent's and the
// server's peak memory, and how soon Ctrl-C stops it). --bin takes the server and the
// agent from another build. A count of 0 skips its part.
#include "base/open_file_limit.h"
#include "paced_terminal_reader.h"
#include "process_stats.h"
#include "test_certificate_authority.h"
#include "websocket_client.h"
#include "websocket_frames.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

using namespace brinmoor;
using namespace brinmoor::bench;
using relay::TestCertificateAuthority;

namespace {

QElapsedTimer g_clock;
// Where brinmoor-server and BrinmoorMacAgent are.
QString g_bin;
// The shared token of every run.
constexpr char kToken[] = "bench-token-9d2f6a1c7e4b3058";

// The certificate the TLS runs use, and what the peers trust; none for plain runs.
struct Tls {
    TestCertificateAuthority::Issued files;
    QSslConfiguration client;
};

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
            if (message.opcode == relay::ws::Ping) {
                // As every WebSocket peer does; the relay learns from it that this agent
                // does not number its messages.
                static constexpr char kZeroMask[4] = {};
                QByteArray pong;
                relay::ws::appendMaskedFrame(pong, relay::ws::Pong, message.payload, kZeroMask);
                socket->write(pong);
            }
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

// A brinmoor-server on 127.0.0.1 and a free port, over TLS when given one; its further
// output is drained.
struct Server {
    QProcess process;
    quint16 port = 0;

    bool start(const Tls* tls = nullptr, const QStringList& settings = {})
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("BRINMOOR_SHARED_TOKEN"), QString::fromLatin1(kToken));
        env.insert(QStringLiteral("BRINMOOR_SERVER_PORT"), QStringLiteral("0"));
        env.insert(QStringLiteral("BRINMOOR_SERVER_BIND"), QStringLiteral("127.0.0.1"));
        if (tls) {
            env.insert(QStringLiteral("BRINMOOR_TLS_CERT"), tls->files.certificate);
            env.insert(QStringLiteral("BRINMOOR_TLS_KEY"), tls->files.key);
        }
        for (const QString& setting : settings)
            env.insert(setting.section(QLatin1Char('='), 0, 0), setting.section(QLatin1Char('='), 1));
        process.setProcessEnvironment(env);
        process.start(g_bin + QStringLiteral("/brinmoor-server"), QStringList());
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
        user->write(QByteArray("GET /v1/agents HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer ") + kToken +
                    "\r\n\r\n");
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

// An agent and a client of one server, both upgraded.
struct RelayPeers {
    Server server;
    std::unique_ptr<Peer> agent;
    std::unique_ptr<Peer> client;
    Received received;

    bool start(const Tls* tls)
    {
        if (!server.start(tls))
            return false;
        agent = std::make_unique<Peer>(connectTo(server.port, tls));
        client = std::make_unique<Peer>(connectTo(server.port, tls));
        agent->handshake("/v1/ws/agent?agentId=bench", kToken);
        client->handshake("/v1/ws/client", kToken);
        client->onText = [this](QByteArrayView text) { received.take(text); };
        runUntil([&] { return agent->upgraded() && client->upgraded(); });
        return true;
    }

    // A socket to the server; over TLS its handshake is under way and what is written
    // waits for it.
    static QTcpSocket* connectTo(quint16 port, const Tls* tls)
    {
        if (!tls) {
            auto* socket = new QTcpSocket;
            socket->connectToHost(QHostAddress::LocalHost, port);
            return socket;
        }
        auto* socket = new QSslSocket;
        socket->setSslConfiguration(tls->client);
        socket->connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
        return socket;
    }
};

struct Throughput {
    double rate = 0;
};

Throughput throughput(const Tls* tls, qint64 messages)
{
    RelayPeers peers;
    if (!peers.start(tls))
        return {};
    const qint64 pid = peers.server.process.processId();
    const double cpuBefore = cpuSeconds(pid);
    const double seconds = stream(*peers.agent, peers.received, messages, 20'000);
    const double serverCpu = cpuSeconds(pid) - cpuBefore;
    const double rate = double(messages) / seconds;
    std::printf("  %-5s %lld task.log messages in %.2f s = %.0f messages/s; server CPU %.2f s (%.0f%% of one core), "
                "peak RSS %.1f MB\n",
                tls ? "TLS" : "plain", static_cast<long long>(messages), seconds, rate, serverCpu,
                100.0 * serverCpu / seconds, peakRssMB(pid));
    return {rate};
}

// The added p99 latency, the worst of the paced rates.
double latency(const Tls* tls, const std::vector<std::pair<double, double>>& direct, const int (&rates)[2])
{
    RelayPeers peers;
    if (!peers.start(tls))
        return 1e9;
    double worstAddedP99 = 0;
    for (size_t i = 0; i < std::size(rates); ++i) {
        paced(*peers.agent, peers.received, rates[i], 2.0);
        const double median = percentile(peers.received.latenciesMs, 0.5);
        const double p99 = percentile(peers.received.latenciesMs, 0.99);
        const double addedMedian = median - direct[i].first;
        const double addedP99 = p99 - direct[i].second;
        worstAddedP99 = std::max(worstAddedP99, addedP99);
        std::printf("latency over %s at %d messages/s: through the server median %.3f ms, p99 %.3f ms; direct median "
                    "%.3f ms, p99 %.3f ms; added by the server median %.3f ms, p99 %.3f ms\n",
                    tls ? "TLS" : "plain TCP", rates[i], median, p99, direct[i].first, direct[i].second, addedMedian,
                    addedP99);
    }
    return worstAddedP99;
}

double median(std::vector<double> values)
{
    return percentile(std::move(values), 0.5);
}

// An agent that has said `lines` log lines; then a client comes back asking for all of
// them: how fast they arrive.
void resume(qint64 lines)
{
    Server server;
    if (!server.start(nullptr, {QStringLiteral("BRINMOOR_EVENT_LOG_BYTES=2147483648"),
                                QStringLiteral("BRINMOOR_EVENT_LOG_TOTAL_BYTES=2147483648")}))
        return;
    Peer agent(new QTcpSocket);
    agent.socket->connectToHost(QHostAddress::LocalHost, server.port);
    agent.handshake("/v1/ws/agent?agentId=bench", kToken);
    qint64 acked = 0;
    agent.onText = [&](QByteArrayView text) {
        const QJsonObject message = QJsonDocument::fromJson(text.toByteArray()).object();
        if (message.value(QStringLiteral("type")).toString() == QLatin1String("agent.ack"))
            acked = message.value(QStringLiteral("payload")).toObject().value(QStringLiteral("seq")).toInteger();
    };
    runUntil([&] { return agent.upgraded(); });
    QByteArray batch;
    Peer::appendFrame(batch, R"({"type":"agent.stream","first":1,"next":1})");
    agent.socket->write(batch);
    qint64 sent = 0;
    runUntil([&] {
        while (sent < lines && sent - acked < 50'000) {
            batch.clear();
            for (int i = 0; i < 500 && sent < lines; ++i)
                appendLogMessage(batch, sent++);
            agent.socket->write(batch);
        }
        return acked >= lines;
    });
    const double logged = peakRssMB(server.process.processId());
    Peer client(new QTcpSocket);
    Received received;
    client.onText = [&](QByteArrayView text) { received.take(text); };
    QElapsedTimer elapsed;
    elapsed.start();
    client.socket->connectToHost(QHostAddress::LocalHost, server.port);
    client.handshake("/v1/ws/client?since=%7B%22bench%22%3A0%7D", kToken);
    runUntil([&] { return received.count >= lines; });
    const double seconds = double(elapsed.nsecsElapsed()) / 1e9;
    std::printf("resume: a client that comes back is given %lld logged lines in %.2f s = %.0f lines/s; server peak "
                "RSS %.1f MB (%.1f MB once the lines were logged)\n",
                static_cast<long long>(lines), seconds, double(lines) / seconds, peakRssMB(server.process.processId()),
                logged);
}

// A phone reading at 1 MB/s follows `yes` in an interactive terminal of a real agent:
// the memory the agent and the server need meanwhile, and how soon Ctrl-C stops it.
void followYes(int seconds)
{
    Server server;
    if (!server.start())
        return;
    QTemporaryDir home;
    {
        QFile zshrc(home.path() + QStringLiteral("/.zshrc"));
        zshrc.open(QIODevice::WriteOnly);
        zshrc.write("PS1='> '\n");
    }
    relay::PacedTerminalReader reader(server.port, kToken, QStringLiteral("bench-agent"), QStringLiteral("yes"),
                                      1'000'000);
    runUntil([&] { return reader.isUpgraded(); });
    QProcess agent;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.path());
    env.insert(QStringLiteral("XDG_STATE_HOME"), home.path() + QStringLiteral("/state"));
    env.insert(QStringLiteral("ZDOTDIR"), home.path());
    env.insert(QStringLiteral("BRINMOOR_SERVER_URL"), QStringLiteral("http://127.0.0.1:%1").arg(server.port));
    env.insert(QStringLiteral("BRINMOOR_SHARED_TOKEN"), QString::fromLatin1(kToken));
    env.insert(QStringLiteral("BRINMOOR_AGENT_ID"), QStringLiteral("bench-agent"));
    env.insert(QStringLiteral("BRINMOOR_REPO_ROOT"), home.path());
    agent.setProcessEnvironment(env);
    agent.setStandardOutputFile(QProcess::nullDevice());
    agent.start(g_bin + QStringLiteral("/BrinmoorMacAgent"), {QStringLiteral("--agent-only")});
    runUntil([&] { return reader.types().contains(QStringLiteral("agent.register")); });
    reader.command(QStringLiteral("terminal.open"),
                   QJsonObject{{QStringLiteral("projectPath"), home.path()},
                               {QStringLiteral("mode"), QStringLiteral("interactive")}});
    runUntil([&] { return reader.types().contains(QStringLiteral("terminal.opened")); });
    const auto type = [&](const QByteArray& text) {
        reader.command(QStringLiteral("terminal.input"),
                       QJsonObject{{QStringLiteral("dataBase64"), QString::fromLatin1(text.toBase64())}});
    };
    type("stty -echo; yes\n");
    QElapsedTimer elapsed;
    elapsed.start();
    runUntil([&] { return elapsed.elapsed() >= seconds * 1000 || reader.isClosed(); });
    const qint64 followed = reader.bytesRead();
    QElapsedTimer interrupt;
    interrupt.start();
    reader.command(QStringLiteral("terminal.signal"),
                   QJsonObject{{QStringLiteral("signal"), QStringLiteral("ctrl_c")}});
    type("echo AFTER''-YES\n");
    runUntil([&] { return reader.tail().contains("AFTER-YES") || reader.isClosed() || interrupt.elapsed() > 60'000; });
    const double stopped = double(interrupt.nsecsElapsed()) / 1e9;
    const double agentPeak = peakRssMB(agent.processId());
    const double serverPeak = peakRssMB(server.process.processId());
    std::printf("yes followed at 1 MB/s for %d s: the phone read %.1f MB (%s); agent peak RSS %.1f MB, server peak RSS "
                "%.1f MB; after Ctrl-C the prompt was back in %.3f s\n",
                seconds, double(followed) / 1e6, reader.isClosed() ? "and was dropped" : "and stayed connected",
                agentPeak, serverPeak, stopped);
    std::printf("targets: agent and server peak RSS < 64 MB %s; Ctrl-C within 1 s %s\n",
                agentPeak < 64 && serverPeak < 64 ? "met" : "MISSED",
                stopped < 1.0 && !reader.isClosed() ? "met" : "MISSED");
    agent.terminate();
    agent.waitForFinished(10000);
}

// Throughput with every message logged, plain and over TLS, and the latency the server
// adds.
void throughputAndLatency(qint64 messages, int rounds)
{
    const int rates[] = {10'000, 100'000};

    TestCertificateAuthority authority;
    Tls tls{authority.issue(QStringLiteral("localhost"), {QStringLiteral("IP:127.0.0.1")}),
            authority.clientConfiguration()};
    if (!authority.error().isEmpty() || tls.files.certificate.isEmpty()) {
        std::fprintf(stderr, "no certificate for the TLS runs: %s\n", qPrintable(authority.error()));
        return;
    }

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

    std::vector<double> plainRates;
    std::vector<double> tlsRates;
    std::vector<double> ratios;
    for (int round = 1; round <= rounds; ++round) {
        std::printf("relay throughput, round %d of %d:\n", round, rounds);
        plainRates.push_back(throughput(nullptr, messages).rate);
        tlsRates.push_back(throughput(&tls, messages).rate);
        ratios.push_back(plainRates.back() > 0 ? tlsRates.back() / plainRates.back() : 0);
        std::printf("  TLS at %.0f%% of plain\n", 100.0 * ratios.back());
    }
    const double plainRate = median(plainRates);
    const double tlsRate = median(tlsRates);
    const double ratio = median(ratios);
    std::printf("relay throughput, median of %d rounds: plain %.0f messages/s, TLS %.0f messages/s (%.0f%% of plain)\n",
                rounds, plainRate, tlsRate, 100.0 * ratio);

    const double plainP99 = latency(nullptr, direct, rates);
    const double tlsP99 = latency(&tls, direct, rates);
    std::printf("targets: plain >= 300000 messages/s %s; TLS >= 300000 messages/s %s; TLS >= 60%% of plain %s; added "
                "p99 < 2 ms over plain TCP %s, over TLS %s\n",
                plainRate >= 300'000 ? "met" : "MISSED", tlsRate >= 300'000 ? "met" : "MISSED",
                ratio >= 0.6 ? "met" : "MISSED", plainP99 < 2.0 ? "met" : "MISSED", tlsP99 < 2.0 ? "met" : "MISSED");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    g_clock.start();
    qint64 messages = 3'000'000;
    int rounds = 3;
    int floodConnections = 500;
    qint64 resumeLines = 1'000'000;
    int yesSeconds = 30;
    g_bin = QCoreApplication::applicationDirPath();
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1String("--messages"))
            messages = args[i + 1].toLongLong();
        else if (args[i] == QLatin1String("--rounds"))
            rounds = std::max(1, args[i + 1].toInt());
        else if (args[i] == QLatin1String("--flood-connections"))
            floodConnections = args[i + 1].toInt();
        else if (args[i] == QLatin1String("--resume-lines"))
            resumeLines = args[i + 1].toLongLong();
        else if (args[i] == QLatin1String("--yes-seconds"))
            yesSeconds = args[i + 1].toInt();
        else if (args[i] == QLatin1String("--bin"))
            g_bin = args[i + 1];
    }
    // The flood's sockets are many more than a default soft limit allows.
    raiseOpenFileLimit();
    if (messages > 0)
        throughputAndLatency(messages, rounds);
    if (floodConnections > 0)
        flood(floodConnections);
    if (resumeLines > 0)
        resume(resumeLines);
    if (yesSeconds > 0)
        followYes(yesSeconds);
    return 0;
}
