// Chat stream parser throughput: the event lines claude 2.1.330 and codex 0.169.0
// printed (tests/execution/data), fed to ChatJSONLineParser in 4 KiB chunks, one
// parser per run as the agent has one per chat.
//   bench_chat_parser [--mb N] [--only claude|partial|codex|growth]
// Also compares the input rate for an answer that grows to 1 MB in 1,000 events with
// one that grows to 100 KB in 100, both as cumulative assistant events and as partial
// messages (text deltas, then the assembled block): a parser that rescans or re-joins
// its text would fall far behind on the larger. Last, the reading of the event lines
// alone, with the parser's JsonReader and with QJsonDocument (what it replaced), each
// line parsed and its "type" read.
#include "chat/chat_json_line_parser.h"
#include "chat/json_reader.h"
#include "process_stats.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
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

const QString kSession = QStringLiteral("5f1c2a9e-7b3d-4e8a-9c01-2d4e6f8a0b1c");

QString claudeAssistant(const QString& text)
{
    return jsonLine({{QStringLiteral("type"), QStringLiteral("assistant")},
                     {QStringLiteral("message"),
                      QJsonObject{{QStringLiteral("id"), QStringLiteral("msg_01")},
                                  {QStringLiteral("content"),
                                   QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("text")},
                                                          {QStringLiteral("text"), text}}}}}},
                     {QStringLiteral("session_id"), kSession}});
}

// A text delta as claude passes it on with --include-partial-messages.
QString claudeDelta(const QString& text)
{
    return jsonLine(
        {{QStringLiteral("type"), QStringLiteral("stream_event")},
         {QStringLiteral("event"),
          QJsonObject{{QStringLiteral("type"), QStringLiteral("content_block_delta")},
                      {QStringLiteral("index"), 0},
                      {QStringLiteral("delta"), QJsonObject{{QStringLiteral("type"), QStringLiteral("text_delta")},
                                                            {QStringLiteral("text"), text}}}}},
         {QStringLiteral("session_id"), kSession},
         {QStringLiteral("parent_tool_use_id"), QJsonValue::Null},
         {QStringLiteral("uuid"), QStringLiteral("ea3a0544-f6b3-459a-8b72-4bc26fe69f3f")},
         {QStringLiteral("api_message_id"), QStringLiteral("msg_01")}});
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

struct Figures {
    qint64 bytes = 0;
    qint64 deltaChars = 0;
    double seconds = 0;
};

// A Claude answer of `events` pieces, each `step` characters, made one event at a time
// so the benchmark holds no more than one event: cumulative assistant events, or (with
// `partial`) one text delta per piece and the assembled block at the end, as claude
// prints them with --include-partial-messages.
Figures growingClaudeAnswer(int events, int step, bool partial)
{
    Feeder feeder(ChatJSONProvider::claude);
    const QString sample =
        partial ? claudeDelta(QStringLiteral("@@TEXT@@")) : claudeAssistant(QStringLiteral("@@TEXT@@"));
    const qsizetype split = sample.indexOf(QStringLiteral("@@TEXT@@"));
    const QString before = sample.left(split);
    const QString after = sample.mid(split + 8);
    QString text;
    const QString piece = QStringLiteral("The quick brown fox jumps over the lazy dog. ");
    while (text.size() < qsizetype(events) * step)
        text += piece;
    text.truncate(qsizetype(events) * step);
    if (partial)
        feeder.add(jsonLine(
            {{QStringLiteral("type"), QStringLiteral("stream_event")},
             {QStringLiteral("event"), QJsonObject{{QStringLiteral("type"), QStringLiteral("message_start")},
                                                   {QStringLiteral("message"),
                                                    QJsonObject{{QStringLiteral("id"), QStringLiteral("msg_01")}}}}}}));
    for (int i = 1; i <= events; ++i) {
        if (partial)
            feeder.add(before + QStringView(text).mid(qsizetype(i - 1) * step, step) + after);
        else
            feeder.add(before + QStringView(text).left(qsizetype(i) * step) + after);
    }
    if (partial)
        feeder.add(claudeAssistant(text));
    feeder.add(jsonLine({{QStringLiteral("type"), QStringLiteral("result")}, {QStringLiteral("result"), text}}));
    const double seconds = feeder.finish();
    return {feeder.bytes(), feeder.deltaChars(), seconds};
}

QString recorded(const char* name)
{
    QFile file(QStringLiteral(BRINMOOR_TEST_DATA_DIR "/") + QLatin1String(name));
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "cannot read %s\n", qPrintable(QFileInfo(file).absoluteFilePath()));
        std::exit(1);
    }
    return QString::fromUtf8(file.readAll());
}

} // namespace

int main(int argc, char** argv)
{
    qint64 megabytes = 100;
    QByteArray only; // run one part alone (for profiling)
    for (int i = 1; i + 1 < argc; ++i) {
        if (QByteArray(argv[i]) == "--mb")
            megabytes = QByteArray(argv[i + 1]).toLongLong();
        else if (QByteArray(argv[i]) == "--only")
            only = argv[i + 1];
    }

    std::printf("chat stream parser, 4 KiB chunks\n");
    struct Recording {
        ChatJSONProvider provider;
        const char* name;
        const char* file;
    };
    const Recording recordings[] = {
        {ChatJSONProvider::claude, "claude", "claude-2.1.330-tools.jsonl"},
        {ChatJSONProvider::claude, "partial", "claude-2.1.330-tools-partial.jsonl"},
        {ChatJSONProvider::codex, "codex", "codex-0.169.0-tools.jsonl"},
    };
    double totalMB = 0;
    double totalSeconds = 0;
    for (const Recording& recording : recordings) {
        if (!only.isEmpty() && only != recording.name)
            continue;
        const QString run = recorded(recording.file);
        const double runMB = double(run.toUtf8().size()) / 1e6;
        const int runs = int(double(megabytes) / 3 / runMB) + 1;
        double seconds = 0;
        for (int i = 0; i < runs; ++i) {
            Feeder feeder(recording.provider);
            feeder.add(run);
            seconds += feeder.finish();
        }
        std::printf("  %-8s %6.1f MB (%5d runs of %s) in %.2f s: %6.1f MB/s\n", recording.name, runMB * runs, runs,
                    recording.file, seconds, runMB * runs / seconds);
        totalMB += runMB * runs;
        totalSeconds += seconds;
    }
    if (totalSeconds > 0)
        std::printf("  all      %6.1f MB at %6.1f MB/s\n", totalMB, totalMB / totalSeconds);
    if (!only.isEmpty() && only != "growth")
        return 0;

    // Each figure covers at least 100 MB of input (small answers run many times over),
    // and is the best of three, so that a busy moment of the machine does not decide.
    const auto best = [](int events, bool partial) {
        Figures bestFigures;
        for (int attempt = 0; attempt < 3; ++attempt) {
            Figures figures;
            while (figures.bytes < 100'000'000) {
                const Figures run = growingClaudeAnswer(events, 1000, partial);
                figures.bytes += run.bytes;
                figures.seconds += run.seconds;
                figures.deltaChars = run.deltaChars;
            }
            if (attempt == 0 ||
                figures.seconds / double(figures.bytes) < bestFigures.seconds / double(bestFigures.bytes))
                bestFigures = figures;
        }
        return bestFigures;
    };
    for (const bool partial : {false, true}) {
        const Figures big = best(1000, partial);
        const Figures small = best(100, partial);
        const double bigRate = double(big.bytes) / 1e6 / big.seconds;
        const double smallRate = double(small.bytes) / 1e6 / small.seconds;
        const char* shape = partial ? "text deltas" : "cumulative events";
        std::printf("  1 MB answer in 1,000 %-17s %7.1f MB of input at %6.1f MB/s (%lld characters of deltas)\n", shape,
                    double(big.bytes) / 1e6, bigRate, static_cast<long long>(big.deltaChars));
        std::printf("  100 KB answer in 100 %-17s %7.1f MB of input at %6.1f MB/s (%lld characters of deltas)\n", shape,
                    double(small.bytes) / 1e6, smallRate, static_cast<long long>(small.deltaChars));
        std::printf("  ratio (large / small)                  %.2f (at least 0.67 means linear)\n",
                    bigRate / smallRate);
    }
    // JSON reading alone: the recorded lines, each parsed whole and its "type" read, as
    // the parser needs it; best of three.
    QStringList lines;
    for (const Recording& recording : recordings)
        lines += recorded(recording.file).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    qint64 lineBytes = 0;
    for (const QString& line : lines)
        lineBytes += line.toUtf8().size();
    const int rounds = int(50'000'000 / lineBytes) + 1;
    const auto timeBest = [&](auto&& readOne) {
        double best = 0;
        for (int attempt = 0; attempt < 3; ++attempt) {
            QElapsedTimer clock;
            clock.start();
            qint64 types = 0;
            for (int round = 0; round < rounds; ++round) {
                for (const QString& line : lines)
                    types += readOne(line);
            }
            const double seconds = double(clock.nsecsElapsed()) / 1e9;
            if (types == 0)
                std::printf("  (no line had a type)\n");
            if (attempt == 0 || seconds < best)
                best = seconds;
        }
        return double(lineBytes) * rounds / 1e6 / best;
    };
    JsonReader reader;
    const double readerRate = timeBest([&](const QString& line) {
        return reader.parse(line) && reader.isString(reader.member(reader.root(), u"type")) ? 1 : 0;
    });
    const double documentRate = timeBest([](const QString& line) {
        const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8());
        return document.object().value(QStringLiteral("type")).isString() ? 1 : 0;
    });
    std::printf("  JSON of the event lines: JsonReader %.1f MB/s, QJsonDocument %.1f MB/s (%.1fx)\n", readerRate,
                documentRate, readerRate / documentRate);
    std::printf("  peak RSS                               %.1f MB\n", peakRssMB());
    return 0;
}
