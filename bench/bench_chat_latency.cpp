// Chat latency: the time from a fake model server sending a text delta to the phone
// receiving it as "task.chat.chunk", with the released claude (scripts/real-tools)
// started by a real agent (BrinmoorMacAgent --agent-only) through a real relay
// (brinmoor-server). The same paced answer is also read straight from claude's standard
// output: that is claude's own share, and the difference is what the agent and the
// relay add.
//   bench_chat_latency [--runs R] [--deltas N] [--interval-ms M]
// Prints "skipped: tools not installed" when the tools cannot be installed.
#include "support/fake_model_server.h"
#include "support/loopback_server.h"
#include "support/process_fixtures.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkRequest>
#include <QProcess>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QWebSocketHandshakeOptions>

#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <vector>

using namespace brinmoor::test;

namespace {

QElapsedTimer g_clock;

double nowMs()
{
    return double(g_clock.nsecsElapsed()) / 1e6;
}

QString delta(int run, int index)
{
    return QStringLiteral("r%1w%2 ").arg(run).arg(index, 3, 10, QLatin1Char('0'));
}

// The answer of one run: one text block, a delta every interval.
FakeModelServer::Reply pacedAnswer(int run, int deltas, int intervalMs)
{
    QJsonArray pieces;
    for (int i = 0; i < deltas; ++i)
        pieces.append(delta(run, i));
    return FakeModelServer::messagesOverTime({QJsonObject{{"type", "text"}, {"deltas", pieces}}}, intervalMs);
}

// The phone: creates chat tasks and notes when each chunk arrives.
class Phone : public QObject {
public:
    QHash<QString, double> chunkArrivals;
    QStringList ended;

    bool open(quint16 port, const QString& token)
    {
        connect(&m_socket, &QWebSocket::textMessageReceived, this, [this](const QString& text) {
            const double at = nowMs();
            const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
            const QString type = message.value(QStringLiteral("type")).toString();
            if (type == QLatin1String("server.hello"))
                m_hello = true;
            else if (type == QLatin1String("task.chat.chunk"))
                chunkArrivals.insert(message.value(QStringLiteral("chunk")).toString(), at);
            else if (type == QLatin1String("task.finished") || type == QLatin1String("task.failed"))
                ended.append(message.value(QStringLiteral("taskId")).toString() + QLatin1Char(' ') + type);
        });
        QWebSocketHandshakeOptions options;
        options.setSubprotocols({QStringLiteral("bearer.") + token});
        m_socket.open(QNetworkRequest(QUrl(QStringLiteral("ws://127.0.0.1:%1/v1/ws/client").arg(port))), options);
        return waitUntil([this] { return m_hello; });
    }

    void chat(const QString& conversation)
    {
        const QJsonObject payload{{"action", "chat"},
                                  {"system", "claude"},
                                  {"projectPath", "App"},
                                  {"prompt", "Write the words."},
                                  {"conversationId", conversation},
                                  {"approvalMode", "none"}};
        m_socket.sendTextMessage(QString::fromUtf8(
            QJsonDocument(QJsonObject{{"type", "task.create"}, {"agentId", "cli-agent"}, {"payload", payload}})
                .toJson(QJsonDocument::Compact)));
    }

private:
    QWebSocket m_socket;
    bool m_hello = false;
};

struct Percentiles {
    double median = 0;
    double p99 = 0;
};

Percentiles percentiles(std::vector<double> values)
{
    if (values.empty())
        return {};
    std::sort(values.begin(), values.end());
    const auto at = [&](double q) {
        return values[std::min(values.size() - 1, size_t(q * double(values.size() - 1) + 0.5))];
    };
    return {at(0.5), at(0.99)};
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int runs = 5;
    int deltas = 40;
    int intervalMs = 50;
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1String("--runs"))
            runs = args[i + 1].toInt();
        else if (args[i] == QLatin1String("--deltas"))
            deltas = args[i + 1].toInt();
        else if (args[i] == QLatin1String("--interval-ms"))
            intervalMs = args[i + 1].toInt();
    }
    g_clock.start();

    QProcess install;
    install.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    install.start(QStringLiteral(BRINMOOR_SOURCE_DIR "/scripts/real-tools"), QStringList());
    install.waitForFinished(11 * 60 * 1000);
    const QStringList installed =
        QString::fromUtf8(install.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    if (install.exitStatus() != QProcess::NormalExit || install.exitCode() != 0 || installed.isEmpty()) {
        std::printf("chat latency: skipped: tools not installed\n");
        return 0;
    }
    const QString toolsBin = installed.last();

    QTemporaryDir home;
    QTemporaryDir tmp;
    FakeModelServer model;
    model.listen();
    int run = 0;
    QHash<QString, double> deltaSent;
    model.respond = [&](const FakeModelServer::Request& request) {
        if (!request.path.startsWith(QLatin1String("/v1/messages")) ||
            request.path.contains(QLatin1String("count_tokens")))
            return FakeModelServer::Reply{404, "application/json", "{}"};
        return pacedAnswer(run, deltas, intervalMs);
    };
    // Piece N of an answer begins with its delta N.
    model.onPieceSent = [&](qsizetype piece) { deltaSent.insert(delta(run, int(piece)), nowMs()); };

    QProcessEnvironment env;
    env.insert(QStringLiteral("PATH"), toolsBin + QLatin1Char(':') + qEnvironmentVariable("PATH"));
    env.insert(QStringLiteral("HOME"), home.path());
    env.insert(QStringLiteral("TMPDIR"), tmp.path());
    env.insert(QStringLiteral("ANTHROPIC_BASE_URL"), model.baseURL());
    env.insert(QStringLiteral("ANTHROPIC_API_KEY"), QStringLiteral("bench-key"));
    env.insert(QStringLiteral("CLAUDE_CODE_DISABLE_NONESSENTIAL_TRAFFIC"), QStringLiteral("1"));
    env.insert(QStringLiteral("DISABLE_AUTOUPDATER"), QStringLiteral("1"));
    if (::geteuid() == 0)
        env.insert(QStringLiteral("IS_SANDBOX"), QStringLiteral("1"));

    RelayProcess relay;
    relay.token = QStringLiteral("tok-4e1f9a7c2b6d8035e0a3c1f7");
    if (!relay.start()) {
        std::fprintf(stderr, "the relay did not start\n");
        return 1;
    }
    AgentProcess agent;
    const QString project = agent.repo.path() + QStringLiteral("/App");
    QDir().mkpath(project);
    agent.start(relay.url(), env);
    Phone phone;
    if (!relay.waitForLine(QStringLiteral("agent.register agentId=cli-agent")) ||
        !phone.open(relay.port, relay.token)) {
        std::fprintf(stderr, "the agent or the phone did not connect\n");
        return 1;
    }
    // claude alone, as the agent runs it, in the same folder and with the same settings.
    QProcessEnvironment alone = env;
    alone.insert(QStringLiteral("CLAUDE_CONFIG_DIR"), agent.configHome.path() + QStringLiteral("/claude"));

    std::vector<double> throughAgent;
    std::vector<double> claudeOnly;
    int lost = 0;
    for (int i = 0; i < runs; ++i) {
        // Through the agent and the relay to the phone.
        ++run;
        phone.chat(QStringLiteral("bench-latency-%1").arg(run));
        if (!waitUntil([&] { return phone.ended.size() == i + 1; }, 120000)) {
            std::fprintf(stderr, "run %d did not end\n", run);
            return 1;
        }
        for (int d = 0; d < deltas; ++d) {
            const auto arrived = phone.chunkArrivals.constFind(delta(run, d));
            if (arrived == phone.chunkArrivals.cend() || !deltaSent.contains(delta(run, d)))
                ++lost;
            else
                throughAgent.push_back(*arrived - deltaSent.value(delta(run, d)));
        }

        // Straight from claude's standard output.
        ++run;
        QProcess claude;
        claude.setProcessEnvironment(alone);
        claude.setWorkingDirectory(project);
        claude.setStandardInputFile(QProcess::nullDevice());
        QByteArray pending;
        QObject::connect(&claude, &QProcess::readyReadStandardOutput, &claude, [&] {
            const double at = nowMs();
            pending += claude.readAllStandardOutput();
            qsizetype newline;
            while ((newline = pending.indexOf('\n')) >= 0) {
                const QJsonObject line = QJsonDocument::fromJson(pending.left(newline)).object();
                pending.remove(0, newline + 1);
                const QJsonObject event = line.value(QStringLiteral("event")).toObject();
                const QString text =
                    event.value(QStringLiteral("delta")).toObject().value(QStringLiteral("text")).toString();
                if (event.value(QStringLiteral("type")).toString() == QLatin1String("content_block_delta") &&
                    deltaSent.contains(text))
                    claudeOnly.push_back(at - deltaSent.value(text));
            }
        });
        claude.start(toolsBin + QStringLiteral("/claude"),
                     {QStringLiteral("--dangerously-skip-permissions"), QStringLiteral("-p"),
                      QStringLiteral("--verbose"), QStringLiteral("--output-format"), QStringLiteral("stream-json"),
                      QStringLiteral("--include-partial-messages"), QStringLiteral("Write the words.")});
        if (!waitUntil([&] { return claude.state() == QProcess::NotRunning; }, 120000)) {
            claude.kill();
            claude.waitForFinished();
            std::fprintf(stderr, "claude alone did not end\n");
            return 1;
        }
    }
    agent.stop();

    const Percentiles total = percentiles(throughAgent);
    const Percentiles own = percentiles(claudeOnly);
    std::printf(
        "chat latency, claude text delta to the phone's task.chat.chunk (%d runs of %d deltas, one every %d ms)\n",
        runs, deltas, intervalMs);
    std::printf("  through agent and relay  median %6.1f ms  p99 %6.1f ms  (%zu deltas, %d lost)\n", total.median,
                total.p99, throughAgent.size(), lost);
    std::printf("  claude alone             median %6.1f ms  p99 %6.1f ms  (%zu deltas)\n", own.median, own.p99,
                claudeOnly.size());
    std::printf("  agent and relay add      median %6.1f ms  p99 %6.1f ms  (target: under 50 ms)\n",
                total.median - own.median, total.p99 - own.p99);
    return 0;
}
