// Chat stream parser throughput: recorded-shape Claude and Codex event lines fed to
// ChatJSONLineParser in 4 KiB chunks.
//   bench_chat_parser [--mb N]
// Also compares the input rate for an answer that grows to 1 MB in 1,000 cumulative
// Claude events with one that grows to 100 KB in 100: a parser that rescans or re-joins
// its text would fall far behind on the first.
#include "chat/chat_json_line_parser.h"
#include "process_stats.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <cstdio>

using namespace brinmoor;
using brinmoor::bench::peakRssMB;

namespace {

QString jsonLine(const QJsonObject& object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)) + QLatin1Char('\n');
}

QString claudeAssistant(const QString& text)
{
    return jsonLine({{QStringLiteral("type"), QStringLiteral("assistant")},
                     {QStringLiteral("message"),
                      QJsonObject{{QStringLiteral("id"), QStringLiteral("msg_01")},
                                  {QStringLiteral("content"),
                                   QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("text")},
                                                          {QStringLiteral("text"), text}}}}}},
                     {QStringLiteral("session_id"), QStringLiteral("5f1c2a9e-0000-4000-8000-000000000000")}});
}

// Hands input to a parser in 4 KiB pieces, timing only the parser.
class Feeder {
public:
    explicit Feeder(ChatJSONProvider provider) : m_parser(provider) {}

    void add(const QString& text)
    {
        m_pending += text;
        m_bytes += text.toUtf8().size();
        qsizetype at = 0;
        for (; at + kChunk <= m_pending.size(); at += kChunk)
            run(m_pending.mid(at, kChunk));
        m_pending.remove(0, at);
    }

    // Sends the rest and calls finish; returns the seconds spent in the parser.
    double finish()
    {
        if (!m_pending.isEmpty())
            run(m_pending);
        m_pending.clear();
        QElapsedTimer clock;
        clock.start();
        const ParseResult last = m_parser.finish();
        m_nanoseconds += clock.nsecsElapsed();
        count(last);
        return double(m_nanoseconds) / 1e9;
    }

    qint64 bytes() const { return m_bytes; }
    qint64 deltaChars() const { return m_deltaChars; }

private:
    static constexpr qsizetype kChunk = 4096;

    void run(const QString& chunk)
    {
        QElapsedTimer clock;
        clock.start();
        const ParseResult result = m_parser.process(chunk);
        m_nanoseconds += clock.nsecsElapsed();
        count(result);
    }

    void count(const ParseResult& result)
    {
        for (const QString& delta : result.deltas)
            m_deltaChars += delta.size();
    }

    ChatJSONLineParser m_parser;
    QString m_pending;
    qint64 m_bytes = 0;
    qint64 m_nanoseconds = 0;
    qint64 m_deltaChars = 0;
};

// A Claude answer of `events` cumulative assistant events, each `step` characters
// longer, made one event at a time so the benchmark holds no more than one event.
struct Figures {
    qint64 bytes = 0;
    qint64 deltaChars = 0;
    double seconds = 0;
};

Figures growingClaudeAnswer(int events, int step)
{
    Feeder feeder(ChatJSONProvider::claude);
    const QString sample = claudeAssistant(QStringLiteral("@@TEXT@@"));
    const qsizetype split = sample.indexOf(QStringLiteral("@@TEXT@@"));
    const QString before = sample.left(split);
    const QString after = sample.mid(split + 8);
    QString text;
    const QString piece = QStringLiteral("The quick brown fox jumps over the lazy dog. ");
    while (text.size() < qsizetype(events) * step)
        text += piece;
    for (int i = 1; i <= events; ++i)
        feeder.add(before + QStringView(text).left(qsizetype(i) * step) + after);
    feeder.add(jsonLine({{QStringLiteral("type"), QStringLiteral("result")},
                         {QStringLiteral("result"), text.left(qsizetype(events) * step)}}));
    const double seconds = feeder.finish();
    return {feeder.bytes(), feeder.deltaChars(), seconds};
}

// One run's recorded-shape event lines: a Claude answer streamed in cumulative
// assistant events and its result, or a Codex thread with commands and messages.
QString recordedRun(ChatJSONProvider provider)
{
    QString run;
    if (provider == ChatJSONProvider::claude) {
        run += jsonLine({{QStringLiteral("type"), QStringLiteral("system")},
                         {QStringLiteral("subtype"), QStringLiteral("init")},
                         {QStringLiteral("session_id"), QStringLiteral("5f1c2a9e-0000-4000-8000-000000000000")}});
        QString text;
        for (int i = 0; i < 20; ++i) {
            text += QStringLiteral("Sentence %1 of the answer, with some words in it. ").arg(i);
            run += claudeAssistant(text);
        }
        run += jsonLine({{QStringLiteral("type"), QStringLiteral("result")},
                         {QStringLiteral("subtype"), QStringLiteral("success")},
                         {QStringLiteral("is_error"), false},
                         {QStringLiteral("result"), text}});
    } else {
        run += jsonLine({{QStringLiteral("type"), QStringLiteral("thread.started")},
                         {QStringLiteral("thread_id"), QStringLiteral("0199a1b2")}});
        run += jsonLine({{QStringLiteral("type"), QStringLiteral("turn.started")}});
        for (int i = 0; i < 40; ++i) {
            run +=
                jsonLine({{QStringLiteral("type"), QStringLiteral("item.started")},
                          {QStringLiteral("item"),
                           QJsonObject{{QStringLiteral("type"), QStringLiteral("command_execution")},
                                       {QStringLiteral("command"), QStringLiteral("bash -lc 'ls src/%1'").arg(i)}}}});
            run += jsonLine({{QStringLiteral("type"), QStringLiteral("item.completed")},
                             {QStringLiteral("item"),
                              QJsonObject{{QStringLiteral("type"), QStringLiteral("command_execution")},
                                          {QStringLiteral("aggregated_output"), QStringLiteral("a.c\nb.c\nc.h\n")}}}});
            run += jsonLine(
                {{QStringLiteral("type"), QStringLiteral("item.completed")},
                 {QStringLiteral("item"),
                  QJsonObject{{QStringLiteral("type"), QStringLiteral("agent_message")},
                              {QStringLiteral("text"),
                               QStringLiteral("Looked at part %1 of the tree and found what it needs.").arg(i)}}}});
        }
        run += jsonLine({{QStringLiteral("type"), QStringLiteral("turn.completed")}});
    }
    return run;
}

} // namespace

int main(int argc, char** argv)
{
    qint64 megabytes = 100;
    QByteArray only; // "claude", "codex" or "growth": run one part alone (for profiling)
    for (int i = 1; i + 1 < argc; ++i) {
        if (QByteArray(argv[i]) == "--mb")
            megabytes = QByteArray(argv[i + 1]).toLongLong();
        else if (QByteArray(argv[i]) == "--only")
            only = argv[i + 1];
    }

    std::printf("chat stream parser, 4 KiB chunks\n");
    double totalMB = 0;
    double totalSeconds = 0;
    for (const auto& [provider, name] :
         {std::pair{ChatJSONProvider::claude, "claude"}, std::pair{ChatJSONProvider::codex, "codex"}}) {
        if (!only.isEmpty() && only != name)
            continue;
        // Runs of one recorded stream each, a fresh parser per run, as the agent has
        // one parser per chat task.
        const QString run = recordedRun(provider);
        const double runMB = double(run.toUtf8().size()) / 1e6;
        const int runs = int(double(megabytes) / 2 / runMB) + 1;
        double seconds = 0;
        for (int i = 0; i < runs; ++i) {
            Feeder feeder(provider);
            feeder.add(run);
            seconds += feeder.finish();
        }
        std::printf("  %-6s %6.1f MB (%d runs) in %.2f s: %6.1f MB/s\n", name, runMB * runs, runs, seconds,
                    runMB * runs / seconds);
        totalMB += runMB * runs;
        totalSeconds += seconds;
    }
    if (totalSeconds > 0)
        std::printf("  both   %6.1f MB at %6.1f MB/s\n", totalMB, totalMB / totalSeconds);
    if (!only.isEmpty() && only != "growth")
        return 0;

    // The best of three runs each, so that a busy moment of the machine does not decide.
    const auto best = [](int events) {
        Figures figures = growingClaudeAnswer(events, 1000);
        for (int i = 0; i < 2; ++i) {
            const Figures again = growingClaudeAnswer(events, 1000);
            if (again.seconds < figures.seconds)
                figures = again;
        }
        return figures;
    };
    const Figures big = best(1000);
    const Figures small = best(100);
    const double bigRate = double(big.bytes) / 1e6 / big.seconds;
    const double smallRate = double(small.bytes) / 1e6 / small.seconds;
    std::printf("  1 MB answer in 1,000 events:  %6.1f MB of input at %6.1f MB/s (%lld characters of deltas)\n",
                double(big.bytes) / 1e6, bigRate, static_cast<long long>(big.deltaChars));
    std::printf("  100 KB answer in 100 events:  %6.1f MB of input at %6.1f MB/s (%lld characters of deltas)\n",
                double(small.bytes) / 1e6, smallRate, static_cast<long long>(small.deltaChars));
    std::printf("  ratio (large / small)         %.2f (at least 0.67 means linear)\n", bigRate / smallRate);
    std::printf("  peak RSS                      %.1f MB\n", peakRssMB());
    return 0;
}
