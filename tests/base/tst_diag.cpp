#include "base/diag.h"

#include <QRegularExpression>
#include <QTest>
#include <QThread>

#include <cstdio>
#include <unistd.h>

using namespace brinmoor;

class TstDiag : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void lineHasPrefixUtcTimeToTheSecondAndText()
    {
        const QString line = diagLine(QStringLiteral("task.assign taskId=t1"));
        const QRegularExpression shape(QStringLiteral(
            "^\\[BrinmoorMacAgent\\]\\[\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ\\] task\\.assign taskId=t1$"));
        QVERIFY2(shape.match(line).hasMatch(), qPrintable(line));
    }

    void diagWritesOneFlushedLineToStandardOutput()
    {
        // Point standard output at a pipe for the length of one call.
        int fds[2];
        QCOMPARE(::pipe(fds), 0);
        std::fflush(stdout);
        const int saved = ::dup(STDOUT_FILENO);
        ::dup2(fds[1], STDOUT_FILENO);
        diag(QStringLiteral("hello wörld"));
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
        ::close(fds[1]);
        char buffer[512];
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        ::close(fds[0]);
        QVERIFY(n > 0);
        const QString written = QString::fromUtf8(buffer, n);
        QVERIFY2(written.endsWith(QStringLiteral("] hello wörld\n")), qPrintable(written));
        QVERIFY(written.startsWith(QStringLiteral("[BrinmoorMacAgent][")));
        QCOMPARE(written.count(QLatin1Char('\n')), 1);
    }

    void controlCharactersAreEscapedSoNoValueStartsALine()
    {
        DiagRecorder recorder;
        diag(QStringLiteral("agent.register agentId=evil\r\n[BrinmoorMacAgent][2026-01-01T00:00:00Z] forged\tend") +
             QChar(0x1b) + QChar(0x7f) + QChar(0x85) + QChar(0x2028) + QChar(0x2029) + QStringLiteral("é"));
        QCOMPARE(recorder.texts(),
                 QStringList{QStringLiteral("agent.register agentId=evil\\r\\n[BrinmoorMacAgent][2026-01-01T00:00:00Z] "
                                            "forged\\tend\\u001b\\u007f\\u0085\\u2028\\u2029é")});
        QCOMPARE(escapeForLog(QStringLiteral("plain text, no escapes")), QStringLiteral("plain text, no escapes"));
    }

    void longValuesAreCutAtOneKibibyte()
    {
        QCOMPARE(logValue(QString(1024, QLatin1Char('a'))), QString(1024, QLatin1Char('a')));
        QCOMPARE(logValue(QString(1025, QLatin1Char('a'))),
                 QString(1024, QLatin1Char('a')) + QStringLiteral("\u2026 (1 more bytes)"));
        QCOMPARE(logValue(QString(15 * 1024 * 1024, QLatin1Char('x'))),
                 QString(1024, QLatin1Char('x')) + QStringLiteral("\u2026 (15727616 more bytes)"));
        // Never inside a character: 1023 bytes of "a", then a two-byte "é" that would end at 1025.
        QCOMPARE(logValue(QString(QString(1023, QLatin1Char('a')) + QStringLiteral("éé"))),
                 QString(1023, QLatin1Char('a')) + QStringLiteral("\u2026 (4 more bytes)"));
        QCOMPARE(logValue(QStringLiteral("short")), QStringLiteral("short"));
    }

    void recorderSeesTextsFromAnyThread()
    {
        DiagRecorder recorder;
        QList<QThread*> threads;
        for (int t = 0; t < 4; ++t) {
            threads.append(QThread::create([t] {
                for (int i = 0; i < 50; ++i)
                    diag(QStringLiteral("thread=%1 i=%2").arg(t).arg(i));
            }));
            threads.last()->start();
        }
        for (QThread* thread : threads) {
            QVERIFY(thread->wait(10000));
            delete thread;
        }
        QCOMPARE(recorder.texts().size(), 200);
        QVERIFY(recorder.contains(QStringLiteral("thread=3 i=49")));
    }
};

QTEST_GUILESS_MAIN(TstDiag)
#include "tst_diag.moc"
