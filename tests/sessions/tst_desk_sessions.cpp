// The assistants' sessions as the tools keep them on this computer: listed per folder
// with their fields, read at their ends only, held or not by a running process, and read
// back as a chat's turns. The transcripts are written here in the shapes the released
// claude and codex write (their real runs are in the real-tools test).
#include "chat/chat_execution.h"
#include "sessions/claude_session_store.h"
#include "sessions/desk_sessions.h"
#include "sessions/session_text.h"
#include "sessions/session_watch.h"
#include "sessions/transcript_file.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

#include <sys/file.h>
#include <unistd.h>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

const QString kClaudeA = QStringLiteral("11111111-2222-4333-8444-555555555555");
const QString kClaudeB = QStringLiteral("aaaaaaaa-bbbb-4ccc-8ddd-eeeeeeeeeeee");
const QString kThread = QStringLiteral("01a20fde-c1f6-7e61-9c92-5167e8ff5e02");
const QString kOtherThread = QStringLiteral("01a20fde-0000-7e61-9c92-5167e8ff5e02");

QByteArray line(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QByteArray userLine(const QString& uuid, const QString& parent, const QJsonValue& content, int turn, const QString& cwd)
{
    return line({{"parentUuid", parent.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(parent)},
                 {"isSidechain", false},
                 {"type", "user"},
                 {"message", QJsonObject{{"role", "user"}, {"content", content}}},
                 {"uuid", uuid},
                 {"timestamp", QStringLiteral("2026-11-24T10:00:%1.000Z").arg(turn, 2, 10, QLatin1Char('0'))},
                 {"turnPosition", QJsonObject{{"promptIndex", 0}, {"turnIndex", turn}}},
                 {"entrypoint", "cli"},
                 {"cwd", cwd}});
}

QByteArray assistantLine(const QString& uuid, const QString& parent, const QString& messageId,
                         const QJsonArray& content)
{
    return line({{"parentUuid", parent},
                 {"isSidechain", false},
                 {"type", "assistant"},
                 {"message", QJsonObject{{"id", messageId}, {"role", "assistant"}, {"content", content}}},
                 {"uuid", uuid},
                 {"timestamp", "2026-11-24T10:01:00.000Z"}});
}

QJsonObject text(const QString& words)
{
    return {{"type", "text"}, {"text", words}};
}

QByteArray codexLine(const QString& type, const QJsonObject& payload)
{
    return line({{"timestamp", "2026-11-24T11:00:00.000Z"}, {"type", type}, {"payload", payload}});
}

QByteArray codexPrompt(const QString& words)
{
    return codexLine("event_msg",
                     {{"type", "item_completed"},
                      {"item", QJsonObject{{"type", "UserMessage"},
                                           {"content", QJsonArray{QJsonObject{{"type", "text"}, {"text", words}}}}}}});
}

QByteArray codexMeta(const QString& id, const QString& cwd)
{
    // The model's instructions make the first line long.
    return codexLine("session_meta", {{"id", id},
                                      {"timestamp", "2026-11-24T11:00:00.000Z"},
                                      {"cwd", cwd},
                                      {"base_instructions", QJsonObject{{"text", QString(20000, QLatin1Char('i'))}}}});
}

void setModified(const QString& path, const QDateTime& when)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.setFileTime(when, QFileDevice::FileModificationTime));
}

QStringList kindsAndTexts(const QList<SessionItem>& items)
{
    QStringList out;
    for (const SessionItem& item : items)
        out.append(QJsonDocument(DeskSessions::toJson(item)).toJson(QJsonDocument::Compact));
    return out;
}

// Field 22 of /proc/self/stat: when this process started.
QString ownStart()
{
    const QByteArray stat = readFile(QStringLiteral("/proc/self/stat"));
    return QString::fromLatin1(stat.mid(stat.lastIndexOf(')') + 2).split(' ').at(19));
}

} // namespace

class TstDeskSessions : public QObject {
    Q_OBJECT

    QTemporaryDir m_root;
    DeskSessions::Stores m_stores;
    QString m_project;

    QString claudeFile(const QString& folder, const QString& id) const
    {
        return m_stores.claude + QStringLiteral("/projects/") + ClaudeSessionStore::projectFolderName(folder) +
               QLatin1Char('/') + id + QStringLiteral(".jsonl");
    }

    QString codexFile(const QString& id) const
    {
        return m_stores.codex + QStringLiteral("/sessions/2026/11/24/rollout-2026-11-24T11-00-00-") + id +
               QStringLiteral(".jsonl");
    }

    static QStringList listed(const QList<DeskSession>& sessions)
    {
        QStringList out;
        for (const DeskSession& session : sessions)
            out.append(QJsonDocument(DeskSessions::toJson(session)).toJson(QJsonDocument::Compact));
        return out;
    }

private Q_SLOTS:
    void init()
    {
        QDir(m_root.path()).removeRecursively();
        m_stores = {m_root.path() + QStringLiteral("/claude"), m_root.path() + QStringLiteral("/codex")};
        m_project = m_root.path() + QStringLiteral("/repo/App");
        QVERIFY(QDir().mkpath(m_project));
    }

    void bothToolsAreListedNewestFirstWithTheirFields()
    {
        // A desk session with two prompts, the first cut to a title of one line.
        writeFile(claudeFile(m_project, kClaudeA),
                  line({{"type", "queue-operation"}, {"operation", "enqueue"}}) +
                      userLine("u1", {}, QStringLiteral("Fix the build\nIt fails on CI"), 1, m_project) +
                      assistantLine("a1", "u1", "m1", {text("Done.")}) +
                      userLine("u2", "a1", QJsonArray{text("And the tests")}, 2, m_project) +
                      assistantLine("a2", "u2", "m2", {text("Also done.")}));
        // A phone's session: its prompt carries the project's rules before the user's words.
        writeFile(claudeFile(m_project, kClaudeB),
                  userLine("u1", {}, ChatExecution::workspaceScopedPrompt("App", QString(200, QLatin1Char('w'))), 1,
                           m_project));
        writeFile(codexFile(kThread), codexMeta(kThread, m_project) + codexPrompt("Add a README") +
                                          codexLine("response_item", {{"type", "message"}, {"role", "assistant"}}) +
                                          codexPrompt("Shorter"));
        // Another folder's thread is not listed.
        writeFile(codexFile(kOtherThread), codexMeta(kOtherThread, m_root.path()) + codexPrompt("Elsewhere"));
        setModified(claudeFile(m_project, kClaudeA), QDateTime::fromString("2026-11-20T08:00:00Z", Qt::ISODate));
        setModified(claudeFile(m_project, kClaudeB), QDateTime::fromString("2026-11-22T08:00:00Z", Qt::ISODate));
        setModified(codexFile(kThread), QDateTime::fromString("2026-11-21T08:00:00Z", Qt::ISODate));

        const QString quoted = QLatin1Char('\'') + m_project + QLatin1Char('\'');
        QCOMPARE(
            listed(DeskSessions::list(m_stores, m_project)),
            (QStringList{
                QStringLiteral("{\"id\":\"%1\",\"live\":null,\"messages\":1,\"resumeCommand\":\"cd %2 && claude "
                               "--resume %1\",\"startedBy\":\"phone\",\"title\":\"%3…\",\"tool\":\"claude\","
                               "\"updatedAt\":\"2026-11-22T08:00:00.000Z\"}")
                    .arg(kClaudeB, quoted, QString(119, QLatin1Char('w'))),
                QStringLiteral("{\"id\":\"%1\",\"live\":null,\"messages\":2,\"resumeCommand\":\"cd %2 && codex "
                               "resume %1\",\"startedBy\":\"desk\",\"title\":\"Add a README\",\"tool\":\"codex\","
                               "\"updatedAt\":\"2026-11-21T08:00:00.000Z\"}")
                    .arg(kThread, quoted),
                QStringLiteral("{\"id\":\"%1\",\"live\":null,\"messages\":2,\"resumeCommand\":\"cd %2 && claude "
                               "--resume %1\",\"startedBy\":\"desk\",\"title\":\"Fix the build\",\"tool\":\"claude\","
                               "\"updatedAt\":\"2026-11-20T08:00:00.000Z\"}")
                    .arg(kClaudeA, quoted),
            }));

        // A thread that grew is counted where it grew.
        QFile rollout(codexFile(kThread));
        QVERIFY(rollout.open(QIODevice::Append));
        rollout.write(codexPrompt("One more"));
        rollout.close();
        QCOMPARE(DeskSessions::find(m_stores, "codex", kThread).messages, 3);
        QCOMPARE(DeskSessions::list(m_stores, m_project).at(0).messages, 3);
    }

    void aLongTranscriptIsReadAtItsEndsOnly()
    {
        QByteArray transcript = userLine("u1", {}, QStringLiteral("Start"), 1, m_project);
        const QByteArray filler = line({{"type", "attachment"}, {"text", QString(4000, QLatin1Char('x'))}});
        while (transcript.size() < 8 * 1024 * 1024)
            transcript += filler;
        transcript += userLine("u40", "u1", QStringLiteral("The fortieth"), 40, m_project);
        writeFile(claudeFile(m_project, kClaudeA), transcript);
        const qint64 before = TranscriptFile::bytesRead();
        const QList<DeskSession> sessions = DeskSessions::list(m_stores, m_project);
        const qint64 read = TranscriptFile::bytesRead() - before;
        QCOMPARE(sessions.size(), 1);
        QCOMPARE(sessions.at(0).title, QStringLiteral("Start"));
        QCOMPARE(sessions.at(0).messages, 40);
        QVERIFY2(read <= 2 * 64 * 1024 + 1, qPrintable(QString::number(read)));
    }

    void aRunningProcessMarksItsSessionLive()
    {
        writeFile(claudeFile(m_project, kClaudeA), userLine("u1", {}, QStringLiteral("Hi"), 1, m_project));
        writeFile(claudeFile(m_project, kClaudeB), userLine("u1", {}, QStringLiteral("Hi"), 1, m_project));
        const QString sessions = m_stores.claude + QStringLiteral("/sessions/");
        // This process stands in for a claude at the desk.
        writeFile(sessions + QString::number(::getpid()) + QStringLiteral(".json"), line({{"pid", qint64(::getpid())},
                                                                                          {"sessionId", kClaudeA},
                                                                                          {"procStart", ownStart()},
                                                                                          {"status", "waiting"}}));
        // A file left by a claude whose number now belongs to another process.
        writeFile(sessions + QStringLiteral("1.json"),
                  line({{"pid", 1}, {"sessionId", kClaudeB}, {"procStart", "1"}, {"status", "busy"}}));
        QCOMPARE(DeskSessions::liveState(m_stores, "claude", kClaudeA), QStringLiteral("waiting"));
        QCOMPARE(DeskSessions::liveState(m_stores, "claude", kClaudeB), QString());

        writeFile(codexFile(kThread), codexMeta(kThread, m_project) + codexPrompt("Go"));
        const QString lock = m_stores.codex + QStringLiteral("/thread-writer-locks/") + kThread + ".lock";
        writeFile(lock);
        // A lock file alone is what a writer that ended left behind.
        QCOMPARE(DeskSessions::liveState(m_stores, "codex", kThread), QString());
        QFile held(lock);
        QVERIFY(held.open(QIODevice::ReadWrite));
        QCOMPARE(::flock(held.handle(), LOCK_EX | LOCK_NB), 0);
        QCOMPARE(DeskSessions::find(m_stores, "codex", kThread).live, QStringLiteral("busy"));
        QStringList live;
        for (const DeskSession& session : DeskSessions::list(m_stores, m_project))
            live.append(session.tool + QLatin1Char(' ') + session.live);
        live.sort();
        QCOMPARE(live, (QStringList{"claude ", "claude waiting", "codex busy"}));
        held.close();
        QCOMPARE(DeskSessions::liveState(m_stores, "codex", kThread), QString());
    }

    void aClaudeTranscriptReadsAsAChatAlongItsCurrentBranch()
    {
        writeFile(
            claudeFile(m_project, kClaudeA),
            userLine("u1", {}, QStringLiteral("List the files"), 1, m_project) +
                assistantLine("a1", "u1", "m1", {text("Let me look.")}) +
                assistantLine("a2", "a1", "m1",
                              {QJsonObject{{"type", "tool_use"},
                                           {"id", "t1"},
                                           {"name", "Bash"},
                                           {"input", QJsonObject{{"command", "ls"}, {"description", "List"}}}}}) +
                userLine("r1", "a2",
                         QJsonArray{QJsonObject{{"type", "tool_result"},
                                                {"tool_use_id", "t1"},
                                                {"content", QString(400, QLatin1Char('f'))},
                                                {"is_error", true}}},
                         1, m_project) +
                "not json\n" + line({{"type", "progress"}, {"uuid", "p1"}, {"parentUuid", "r1"}}) +
                // The user went back to before the answer and asked again.
                userLine("u2", "a1", QStringLiteral("Abandoned"), 2, m_project) +
                userLine("u3", "r1", ChatExecution::workspaceScopedPrompt("App", "Only the .md ones"), 2, m_project) +
                assistantLine("a3", "u3", "m2", {text("README.md")}) +
                assistantLine("a4", "a3", "m2", {text("NOTES.md")}));
        const DeskSession session = DeskSessions::find(m_stores, "claude", kClaudeA);
        QCOMPARE(session.path, claudeFile(m_project, kClaudeA));
        QCOMPARE(
            kindsAndTexts(DeskSessions::items(session)),
            (QStringList{
                R"({"at":"2026-11-24T10:00:01.000Z","kind":"user","text":"List the files"})",
                R"({"at":"2026-11-24T10:01:00.000Z","kind":"assistant","text":"Let me look."})",
                R"({"at":"2026-11-24T10:01:00.000Z","kind":"tool_use","name":"Bash","text":"ls"})",
                QStringLiteral(R"({"at":"2026-11-24T10:00:01.000Z","isError":true,"kind":"tool_result","text":"%1…"})")
                    .arg(QString(299, QLatin1Char('f'))),
                R"({"at":"2026-11-24T10:00:02.000Z","kind":"user","text":"Only the .md ones"})",
                R"({"at":"2026-11-24T10:01:00.000Z","kind":"assistant","text":"README.md\n\nNOTES.md"})",
            }));
        QCOMPARE(DeskSessions::find(m_stores, "claude", QStringLiteral("../../etc/passwd")).path, QString());
        QCOMPARE(DeskSessions::find(m_stores, "gemini", kClaudeA).path, QString());
    }

    void aCodexRolloutReadsAsAChat()
    {
        writeFile(
            codexFile(kThread),
            codexMeta(kThread, m_project) +
                codexLine("response_item", {{"type", "message"},
                                            {"role", "user"},
                                            {"content", QJsonArray{QJsonObject{{"type", "input_text"},
                                                                               {"text", "<environment_context/>"}}}}}) +
                codexPrompt("Show the log") +
                codexLine("response_item", {{"type", "reasoning"}, {"summary", QJsonArray()}}) +
                codexLine("response_item", {{"type", "function_call"},
                                            {"name", "shell"},
                                            {"call_id", "c1"},
                                            {"arguments", R"({"command":["git","log"]})"}}) +
                codexLine("response_item", {{"type", "function_call_output"}, {"call_id", "c1"}, {"output", "abc"}}) +
                codexLine("response_item",
                          {{"type", "message"},
                           {"role", "assistant"},
                           {"content", QJsonArray{QJsonObject{{"type", "output_text"}, {"text", "One commit."}}}}}) +
                codexLine("event_msg", {{"type", "item_completed"},
                                        {"item", QJsonObject{{"type", "AgentMessage"}, {"text", "One commit."}}}}));
        QCOMPARE(kindsAndTexts(DeskSessions::items(DeskSessions::find(m_stores, "codex", kThread))),
                 (QStringList{
                     R"({"at":"2026-11-24T11:00:00.000Z","kind":"user","text":"Show the log"})",
                     "{\"at\":\"2026-11-24T11:00:00.000Z\",\"kind\":\"tool_use\",\"name\":\"shell\",\"text\":"
                     "\"[\\\"git\\\",\\\"log\\\"]\"}",
                     R"({"at":"2026-11-24T11:00:00.000Z","kind":"tool_result","text":"abc"})",
                     R"({"at":"2026-11-24T11:00:00.000Z","kind":"assistant","text":"One commit."})",
                 }));
    }

    // What the tool adds is handed on once its line is whole; what was there is not.
    void aWatchedSessionGivesWhatIsAdded()
    {
        const QString path = claudeFile(m_project, kClaudeA);
        writeFile(path, userLine("u1", {}, QStringLiteral("Before"), 1, m_project));
        SessionWatch watch(DeskSessions::find(m_stores, "claude", kClaudeA), QFileInfo(path).size());
        QStringList grown;
        connect(&watch, &SessionWatch::grew, this, [&](const QList<SessionItem>& items) {
            for (const SessionItem& item : items)
                grown.append(item.kind + QLatin1Char(' ') + item.text);
        });
        QFile file(path);
        QVERIFY(file.open(QIODevice::Append));
        const QByteArray added = userLine("u2", "u1", QStringLiteral("Added at the desk"), 2, m_project);
        // A line the tool has written part of waits for the rest.
        file.write(added.left(20));
        file.flush();
        file.write(added.mid(20) + assistantLine("a2", "u2", "m2", {text("Seen.")}));
        file.flush();
        QVERIFY(waitUntil([&] { return grown.size() == 2; }));
        QCOMPARE(grown, (QStringList{"user Added at the desk", "assistant Seen."}));
    }

    void aLongHistoryIsReadAPageAtATime()
    {
        QList<SessionItem> items;
        for (int n = 0; n < 1200; ++n)
            items.append({QStringLiteral("user"), QString::number(n), {}, false, {}});
        const DeskSessions::Page newest = DeskSessions::page(items, std::nullopt);
        QCOMPARE(newest.first, 700);
        QCOMPARE(newest.total, 1200);
        QCOMPARE(newest.items.size(), 500);
        QCOMPARE(newest.items.last().toObject().value("text").toString(), QStringLiteral("1199"));
        const DeskSessions::Page earlier = DeskSessions::page(items, newest.first);
        QCOMPARE(earlier.first, 200);
        QCOMPARE(earlier.items.first().toObject().value("text").toString(), QStringLiteral("200"));
        const DeskSessions::Page oldest = DeskSessions::page(items, earlier.first);
        QCOMPARE(oldest.first, 0);
        QCOMPARE(oldest.items.size(), 200);
        QCOMPARE(DeskSessions::page(items, 0).items.size(), 0);
    }

    void thePhonesPromptIsTheUsersOwnWords()
    {
        const SessionText::Prompt typed =
            SessionText::userPrompt(ChatExecution::workspaceScopedPrompt("App", "Fix it\nplease"));
        QCOMPARE(typed.text, QStringLiteral("Fix it\nplease"));
        QVERIFY(typed.fromPhone);
        QCOMPARE(SessionText::userPrompt("User request:\nno").fromPhone, false);
        QCOMPARE(DeskSessions::resumeCommand({"claude", kClaudeA, {}, {}, 0, {}, false, "/w/it's", {}}),
                 QStringLiteral("cd '/w/it'\"'\"'s' && claude --resume ") + kClaudeA);
    }
};

QTEST_GUILESS_MAIN(TstDeskSessions)
#include "tst_desk_sessions.moc"
