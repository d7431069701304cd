// The chat bookkeeping kept on disk: read when made, written shortly after a change and
// when it goes, owner-only, bounded, and a file it cannot read replaced.
#include "base/diag.h"
#include "chat/chat_sessions.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

class TstChatSessions : public QObject {
    Q_OBJECT

    QTemporaryDir m_state;

    // Where the agent's file goes: a folder that does not exist yet.
    QString path() const { return m_state.path() + QStringLiteral("/brinmoor/chat-sessions.json"); }

private Q_SLOTS:
    void init()
    {
        QDir(m_state.path()).removeRecursively();
        QDir().mkpath(m_state.path());
    }

    void conversationsOutliveTheAgent()
    {
        {
            ChatSessions sessions(path());
            sessions.markChatSessionEstablished(QStringLiteral("App::c1"));
            sessions.recordCodexThreadID(QStringLiteral("th-1"), QStringLiteral(" c2 "), QStringLiteral("App"));
            // Written shortly after, off the event loop.
            QVERIFY(waitUntil([&] { return QFile::exists(path()); }));
            QVERIFY(waitUntil([&] { return readFile(path()).contains("th-1"); }));
            QCOMPARE(fileMode(path()), 0600);
            QCOMPARE(fileMode(m_state.path() + QStringLiteral("/brinmoor")), 0700);
            sessions.recordCodexThreadID(QStringLiteral("th-2"), QStringLiteral("c2"), QStringLiteral("App"));
            // Going away, it writes what was not written yet.
        }
        QCOMPARE(readFile(path()), QByteArray("{\n"
                                              "    \"conversations\": [\n"
                                              "        {\n"
                                              "            \"claudeSession\": true,\n"
                                              "            \"key\": \"App::c1\"\n"
                                              "        },\n"
                                              "        {\n"
                                              "            \"codexThread\": \"th-2\",\n"
                                              "            \"key\": \"App::c2\"\n"
                                              "        }\n"
                                              "    ]\n"
                                              "}\n"));
        QCOMPARE(QDir(m_state.path() + QStringLiteral("/brinmoor")).entryList(QDir::Files | QDir::Hidden),
                 QStringList{QStringLiteral("chat-sessions.json")});
        DiagRecorder log;
        const ChatSessions again(path());
        QVERIFY(again.hasEstablishedChatSession(QStringLiteral("App::c1")));
        QVERIFY(!again.hasEstablishedChatSession(QStringLiteral("App::c2")));
        QCOMPARE(again.codexThreadID(QStringLiteral("App::c2")), std::optional<QString>(QStringLiteral("th-2")));
        QCOMPARE(again.codexThreadID(QStringLiteral("App::c1")), std::nullopt);
        QCOMPARE(log.texts(), QStringList());
    }

    void theConversationUsedLongestAgoGoesFirst()
    {
        {
            ChatSessions sessions(path());
            for (int i = 0; i < ChatSessions::kLimit; ++i)
                sessions.markChatSessionEstablished(QStringLiteral("App::c%1").arg(i));
            // c0 is used again; c1 is now the oldest and makes room for a new one.
            sessions.recordCodexThreadID(QStringLiteral("th"), QStringLiteral("c0"), QStringLiteral("App"));
            sessions.markChatSessionEstablished(QStringLiteral("App::new"));
            QVERIFY(sessions.hasEstablishedChatSession(QStringLiteral("App::c0")));
            QVERIFY(!sessions.hasEstablishedChatSession(QStringLiteral("App::c1")));
            QVERIFY(sessions.hasEstablishedChatSession(QStringLiteral("App::c2")));
        }
        ChatSessions again(path());
        QVERIFY(again.hasEstablishedChatSession(QStringLiteral("App::new")));
        QVERIFY(again.hasEstablishedChatSession(QStringLiteral("App::c2")));
        QVERIFY(!again.hasEstablishedChatSession(QStringLiteral("App::c1")));
        // The order survives the file: c2 is the oldest now.
        again.markChatSessionEstablished(QStringLiteral("App::newer"));
        QVERIFY(!again.hasEstablishedChatSession(QStringLiteral("App::c2")));
        QVERIFY(again.hasEstablishedChatSession(QStringLiteral("App::c3")));
        QCOMPARE(again.codexThreadID(QStringLiteral("App::c0")), std::optional<QString>(QStringLiteral("th")));
    }

    void anUnreadableFileIsLoggedAndReplaced_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("problem");
        QTest::newRow("not JSON") << QByteArray("{\"conversations\": [")
                                  << QStringLiteral("unterminated array at offset 19");
        QTest::newRow("no list") << QByteArray("[1, 2]") << QStringLiteral("no list of conversations");
        QTest::newRow("empty") << QByteArray() << QStringLiteral("illegal value at offset 0");
    }

    void anUnreadableFileIsLoggedAndReplaced()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, problem);
        writeFile(path(), content);
        DiagRecorder log;
        ChatSessions sessions(path());
        QCOMPARE(log.texts(), QStringList{QStringLiteral("chatSessions replaces the unreadable ") + path() +
                                          QStringLiteral(": ") + problem});
        QVERIFY(!sessions.hasEstablishedChatSession(QStringLiteral("App::c1")));
        const QByteArray empty("{\n    \"conversations\": [\n    ]\n}\n");
        QVERIFY(waitUntil([&] { return readFile(path()) == empty; }));
        QCOMPARE(fileMode(path()), 0600);
        // Entries it cannot use are passed over; the others count.
        writeFile(path(), "{\"conversations\": [1, {\"key\": 2}, {\"claudeSession\": true}, "
                          "{\"key\": \"App::c1\", \"claudeSession\": true}]}");
        QVERIFY(ChatSessions(path()).hasEstablishedChatSession(QStringLiteral("App::c1")));
    }

    void aFailedWriteIsLoggedAndChangesNothingElse()
    {
        // A file stands where the folder should be.
        writeFile(m_state.path() + QStringLiteral("/brinmoor"), "in the way");
        DiagRecorder log;
        {
            ChatSessions sessions(path());
            sessions.markChatSessionEstablished(QStringLiteral("App::c1"));
            const QString failed = QStringLiteral("chatSessions could not write ") + path() +
                                   QStringLiteral(": cannot create the folder ") + m_state.path() +
                                   QStringLiteral("/brinmoor");
            QVERIFY(waitUntil([&] { return log.contains(failed); }));
            QVERIFY(sessions.hasEstablishedChatSession(QStringLiteral("App::c1")));
        }
        QCOMPARE(readFile(m_state.path() + QStringLiteral("/brinmoor")), QByteArray("in the way"));
    }

    void withoutAFileNothingIsWritten()
    {
        ChatSessions sessions;
        sessions.markChatSessionEstablished(QStringLiteral("App::c1"));
        sessions.flush();
        QVERIFY(sessions.hasEstablishedChatSession(QStringLiteral("App::c1")));
        QCOMPARE(QDir(m_state.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), QStringList());
    }

    void theFileLivesInTheUsersStateFolder()
    {
#ifdef Q_OS_MACOS
        QSKIP("the application support folder on macOS");
#endif
        QCOMPARE(ChatSessions::standardFilePath({{QStringLiteral("XDG_STATE_HOME"), QStringLiteral("/s")}},
                                                QStringLiteral("/home/u")),
                 QStringLiteral("/s/brinmoor/chat-sessions.json"));
        // XDG's rules ignore a relative XDG_STATE_HOME.
        QCOMPARE(ChatSessions::standardFilePath({{QStringLiteral("XDG_STATE_HOME"), QStringLiteral("s")}},
                                                QStringLiteral("/home/u")),
                 QStringLiteral("/home/u/.local/state/brinmoor/chat-sessions.json"));
        QCOMPARE(ChatSessions::standardFilePath({}, QStringLiteral("/home/u")),
                 QStringLiteral("/home/u/.local/state/brinmoor/chat-sessions.json"));
    }
};

QTEST_GUILESS_MAIN(TstChatSessions)
#include "tst_chat_sessions.moc"
