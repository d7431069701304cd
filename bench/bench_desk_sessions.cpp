// Listing the assistants' sessions of a folder that holds thousands: claude transcripts
// and codex rollouts generated in the shapes the released tools write, each transcript
// far larger than what a list may read of it (a hole in the middle of each file, which
// takes no disk and would not parse if it were read). Prints the time of a list (the
// first, and the median of the next ones), the bytes it read, and the size of the files.
//   bench_desk_sessions [--claude N] [--codex N] [--dir FOLDER]
#include "process_stats.h"
#include "sessions/claude_session_store.h"
#include "sessions/desk_sessions.h"
#include "sessions/session_watch.h"
#include "sessions/transcript_file.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>
#include <QTemporaryDir>
#include <QUuid>

#include <algorithm>
#include <cstdio>

using namespace brinmoor;
using brinmoor::bench::peakRssMB;

namespace {

constexpr qint64 kHole = 4 * 1024 * 1024;

QByteArray line(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QByteArray userLine(const QString& text, int turn, const QString& cwd)
{
    return line({{"type", "user"},
                 {"message", QJsonObject{{"role", "user"}, {"content", text}}},
                 {"uuid", QUuid::createUuid().toString(QUuid::WithoutBraces)},
                 {"turnPosition", QJsonObject{{"promptIndex", 0}, {"turnIndex", turn}}},
                 {"cwd", cwd}});
}

// A file of `head`, a hole of kHole bytes ended by a newline, and `tail`.
bool writeWithHole(const QString& path, const QByteArray& head, const QByteArray& tail)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(head);
    if (!file.seek(head.size() + kHole))
        return false;
    file.write("\n" + tail);
    return true;
}

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

} // namespace

// How long a watched transcript takes to say a line the desk added: from the write to the
// turns handed on, each of `count` lines written once the one before was said.
QList<double> watchDelays(const QString& folder, const QString& cwd, int count)
{
    const QString path = folder + QStringLiteral("/watched.jsonl");
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return {};
    file.write(userLine(QStringLiteral("Start"), 1, cwd));
    file.flush();
    DeskSession session;
    session.tool = QStringLiteral("claude");
    session.id = QStringLiteral("watched");
    session.path = path;
    session.cwd = cwd;
    SessionWatch watch(session, file.size());
    QList<double> delays;
    QElapsedTimer timer;
    QObject::connect(&watch, &SessionWatch::grew, &watch, [&](const QList<SessionItem>&) {
        delays.append(double(timer.nsecsElapsed()) / 1e6);
        if (delays.size() == count) {
            QCoreApplication::quit();
            return;
        }
        timer.start();
        file.write(userLine(QStringLiteral("Turn %1").arg(delays.size()), delays.size() + 1, cwd));
        file.flush();
    });
    timer.start();
    file.write(userLine(QStringLiteral("Turn 0"), 1, cwd));
    file.flush();
    QCoreApplication::exec();
    return delays;
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int claude = 5000;
    int codex = 1000;
    QString dir = QDir::tempPath();
    for (int i = 1; i + 1 < argc; i += 2) {
        const QByteArray option = argv[i];
        if (option == "--claude")
            claude = QByteArray(argv[i + 1]).toInt();
        else if (option == "--codex")
            codex = QByteArray(argv[i + 1]).toInt();
        else if (option == "--dir")
            dir = QString::fromLocal8Bit(argv[i + 1]);
    }
    QTemporaryDir root(dir + QStringLiteral("/bench-desk-sessions-XXXXXX"));
    const QString project = root.path() + QStringLiteral("/repo/App");
    QDir().mkpath(project);
    const DeskSessions::Stores stores{root.path() + QStringLiteral("/claude"), root.path() + QStringLiteral("/codex")};
    const QString claudeFolder =
        stores.claude + QStringLiteral("/projects/") + ClaudeSessionStore::projectFolderName(project);
    QDir().mkpath(claudeFolder);
    const QByteArray filler = line({{"type", "attachment"}, {"text", QString(2000, QLatin1Char('x'))}});
    qint64 bytesOnDisk = 0;
    for (int n = 0; n < claude; ++n) {
        const QString path = claudeFolder + QLatin1Char('/') + QUuid::createUuid().toString(QUuid::WithoutBraces) +
                             QStringLiteral(".jsonl");
        const QByteArray head =
            userLine(QStringLiteral("Session %1: fix the build on the CI machine").arg(n), 1, project) +
            filler.repeated(8);
        if (!writeWithHole(path, head, filler.repeated(8) + userLine(QStringLiteral("Last"), 40, project))) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
            return 1;
        }
        bytesOnDisk += QFileInfo(path).size();
    }
    const QString codexFolder = stores.codex + QStringLiteral("/sessions/2026/11/24");
    QDir().mkpath(codexFolder);
    for (int n = 0; n < codex; ++n) {
        const QString id = QUuid::createUuid().toString(QUuid::WithoutBraces);
        const QByteArray meta = line(
            {{"type", "session_meta"}, {"payload", QJsonObject{{"cwd", n % 2 ? project : root.path()}, {"id", id}}}});
        QByteArray body;
        for (int turn = 0; turn < 20; ++turn)
            body += line({{"type", "event_msg"},
                          {"payload",
                           QJsonObject{{"type", "user_message"}, {"message", QStringLiteral("Turn %1").arg(turn)}}}}) +
                    filler.repeated(2);
        QFile file(codexFolder + QStringLiteral("/rollout-2026-11-24T11-00-00-") + id + QStringLiteral(".jsonl"));
        if (!file.open(QIODevice::WriteOnly))
            return 1;
        file.write(meta + body);
        bytesOnDisk += file.size();
    }

    const auto listOnce = [&](qint64* read) {
        const qint64 before = TranscriptFile::bytesRead();
        QElapsedTimer timer;
        timer.start();
        const QList<DeskSession> sessions = DeskSessions::list(stores, project);
        const double ms = double(timer.nsecsElapsed()) / 1e6;
        *read = TranscriptFile::bytesRead() - before;
        if (sessions.size() != DeskSessions::kListLimit || sessions.first().messages < 1) {
            std::fprintf(stderr, "listed %lld sessions\n", static_cast<long long>(sessions.size()));
            std::exit(1);
        }
        return ms;
    };
    qint64 firstRead = 0;
    const double first = listOnce(&firstRead);
    QList<double> next;
    qint64 read = 0;
    for (int run = 0; run < 9; ++run)
        next.append(listOnce(&read));
    // A claude transcript is longer than the two ends a list reads of it.
    const qint64 transcript = QFileInfo(QDir(claudeFolder).entryInfoList(QDir::Files).first()).size();
    std::printf("desk sessions: %d claude transcripts (%.1f MB each, a hole in each) and %d codex rollouts "
                "(half of this folder), %.0f MB of files\n",
                claude, double(transcript) / 1e6, codex, double(bytesOnDisk) / 1e6);
    std::printf("  first list: %.1f ms, read %.1f MB (codex rollouts counted once)\n", first, double(firstRead) / 1e6);
    std::printf("  next lists: median %.1f ms of 9, read %.1f MB each (%lld KB per listed claude transcript at "
                "most)\n",
                median(next), double(read) / 1e6, static_cast<long long>(2 * 64));
    const QList<double> delays = watchDelays(root.path(), project, 21);
    if (delays.size() != 21) {
        std::fprintf(stderr, "the watch said %lld lines of 21\n", static_cast<long long>(delays.size()));
        return 1;
    }
    std::printf("  a watched session says a line the desk added: median %.1f ms, slowest %.1f ms of 21\n",
                median(delays), *std::max_element(delays.cbegin(), delays.cend()));
    std::printf("  peak RSS %.0f MB\n", peakRssMB());
    return 0;
}
