#include "base/outgoing_flow.h"
#include "base/utf8_stream_decoder.h"
#include "execution/child_process.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

struct Collected {
    QString out;
    QString err;
    std::optional<int> status;
};

void collect(ChildProcess& child, Collected& into)
{
    QObject::connect(&child, &ChildProcess::standardOutput, &child, [&into](const QString& t) { into.out += t; });
    QObject::connect(&child, &ChildProcess::standardError, &child, [&into](const QString& t) { into.err += t; });
    QObject::connect(&child, &ChildProcess::exited, &child, [&into](int s) { into.status = s; });
}

} // namespace

class TstChildProcess : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void decoderCarriesAnIncompleteCharacter()
    {
        Utf8StreamDecoder decoder;
        const QByteArray text = QStringLiteral("a😀b").toUtf8(); // a, 4 bytes, b
        QCOMPARE(decoder.decode(text.constData(), 3), std::optional<QString>(QStringLiteral("a")));
        QVERIFY(decoder.hasPendingBytes());
        QCOMPARE(decoder.decode(text.constData() + 3, 1), std::optional<QString>(QString()));
        QCOMPARE(decoder.decode(text.constData() + 4, 2), std::optional<QString>(QStringLiteral("😀b")));
        QVERIFY(!decoder.hasPendingBytes());
    }

    void decoderDropsInvalidReads()
    {
        Utf8StreamDecoder decoder;
        QCOMPARE(decoder.decode("ok\xff", 3), std::nullopt);
        QCOMPARE(decoder.decode("\xc0\xaf", 2), std::nullopt);         // overlong "/"
        QCOMPARE(decoder.decode("\xed\xa0\x80", 3), std::nullopt);     // a surrogate
        QCOMPARE(decoder.decode("\xf4\x90\x80\x80", 4), std::nullopt); // above U+10FFFF
        QCOMPARE(decoder.decode("fine", 4), std::optional<QString>(QStringLiteral("fine")));
        QVERIFY(Utf8StreamDecoder::isValid("\xe2\x9c\x93 plain ascii run of text", 27));
        QCOMPARE(Utf8StreamDecoder::incompleteTailLength("ab\xf0\x9f\x98", 5), qsizetype(3));
        QCOMPARE(Utf8StreamDecoder::incompleteTailLength("ab\xc3\xa9", 4), qsizetype(0));
    }

    void childrenNeverSeeTheRelayToken()
    {
        qputenv("BRINMOOR_SHARED_TOKEN", "agent-secret");
        qputenv("BRINMOOR_TOKEN", "approver-secret");
        qputenv("BRINMOOR_VISIBLE", "fine");
        ChildProcess child(nullptr);
        Collected collected;
        collect(child, collected);
        QString error;
        QVERIFY(child.start({QStringLiteral("env"), QDir::tempPath()}, &error));
        QVERIFY(waitUntil([&] { return collected.status.has_value(); }));
        qunsetenv("BRINMOOR_SHARED_TOKEN");
        qunsetenv("BRINMOOR_TOKEN");
        qunsetenv("BRINMOOR_VISIBLE");
        QVERIFY(collected.out.contains(QStringLiteral("BRINMOOR_VISIBLE=fine\n")));
        QVERIFY(!collected.out.contains(QStringLiteral("secret")));
        QVERIFY(!collected.out.contains(QStringLiteral("BRINMOOR_SHARED_TOKEN")));
        QVERIFY(!collected.out.contains(QStringLiteral("BRINMOOR_TOKEN")));
    }

    void commandLines()
    {
        const ChildProcess::CommandLine plain = ChildProcess::commandLine(QStringLiteral("echo 'x'"), false);
        QCOMPARE(plain.program, QStringLiteral("/bin/zsh"));
        QCOMPARE(plain.arguments, (QStringList{QStringLiteral("-lc"), QStringLiteral("echo 'x'")}));
        const ChildProcess::CommandLine tty = ChildProcess::commandLine(QStringLiteral("echo 'x'"), true);
        QCOMPARE(tty.program, QStringLiteral("/usr/bin/script"));
        QCOMPARE(tty.arguments,
                 (QStringList{QStringLiteral("-q"), QStringLiteral("-e"), QStringLiteral("-c"),
                              QStringLiteral("/bin/zsh -lc 'echo '\"'\"'x'\"'\"''"), QStringLiteral("/dev/null")}));
    }

    void terminalTaskSeesATerminalAndKeepsItsStatus()
    {
        QTemporaryDir dir;
        ChildProcess child(nullptr);
        Collected got;
        collect(child, got);
        QString error;
        QVERIFY(child.start({QStringLiteral("[ -t 1 ] && echo 'it'\"'\"'s a tty'; exit 4"), dir.path(), true,
                             ChildProcess::Channels::Separate},
                            &error));
        QVERIFY(waitUntil([&] { return got.status.has_value(); }));
        QCOMPARE(*got.status, 4);
        QCOMPARE(got.out, QStringLiteral("it's a tty\r\n"));
    }

    void mergedChannelsKeepTheOrderWritten()
    {
        QTemporaryDir dir;
        ChildProcess child(nullptr);
        Collected got;
        collect(child, got);
        QVERIFY(child.start(
            {QStringLiteral("echo one; echo two >&2; echo three"), dir.path(), false, ChildProcess::Channels::Merged},
            nullptr));
        QVERIFY(waitUntil([&] { return got.status.has_value(); }));
        QCOMPARE(got.out, QStringLiteral("one\ntwo\nthree\n"));
        QCOMPARE(got.err, QString());
    }

    void standardInputIsTheNullDevice()
    {
        QTemporaryDir dir;
        ChildProcess child(nullptr);
        Collected got;
        collect(child, got);
        QVERIFY(child.start({QStringLiteral("cat; echo end"), dir.path(), false, ChildProcess::Channels::Separate},
                            nullptr));
        QVERIFY(waitUntil([&] { return got.status.has_value(); }, 5000));
        QCOMPARE(got.out, QStringLiteral("end\n"));
    }

    void blockedFlowPausesReadingUntilItResumes()
    {
        QTemporaryDir dir;
        OutgoingFlow flow;
        flow.update(OutgoingFlow::kHighWaterBytes + 1);
        QVERIFY(flow.isBlocked());
        ChildProcess child(&flow);
        Collected got;
        collect(child, got);
        // More than a pipe holds: the child must block until reading resumes.
        QVERIFY(child.start(
            {QStringLiteral("exec printf '%03000000d' 0"), dir.path(), false, ChildProcess::Channels::Separate},
            nullptr));
        // The child is stuck writing: nothing has been read meanwhile.
        QVERIFY(waitUntil(
            [&] { return readFile(QStringLiteral("/proc/%1/wchan").arg(child.pid())).endsWith("pipe_write"); }));
        QCOMPARE(got.out.size(), 0);
        QVERIFY(child.isRunning());
        flow.update(0);
        QVERIFY(!flow.isBlocked());
        QVERIFY(waitUntil([&] { return got.status.has_value(); }));
        QCOMPARE(got.out, QString(3000000, QLatin1Char('0')));
    }

    void flowSignalsResumeOnlyBelowTheLowWaterMark()
    {
        OutgoingFlow flow;
        QSignalSpy resumed(&flow, &OutgoingFlow::resumed);
        flow.update(OutgoingFlow::kHighWaterBytes);
        QVERIFY(!flow.isBlocked());
        flow.update(OutgoingFlow::kHighWaterBytes + 1);
        QVERIFY(flow.isBlocked());
        flow.update(OutgoingFlow::kLowWaterBytes);
        QVERIFY(flow.isBlocked());
        QCOMPARE(resumed.count(), 0);
        flow.update(OutgoingFlow::kLowWaterBytes - 1);
        QVERIFY(!flow.isBlocked());
        QCOMPARE(resumed.count(), 1);
    }
};

QTEST_GUILESS_MAIN(TstChildProcess)
#include "tst_child_process.moc"
