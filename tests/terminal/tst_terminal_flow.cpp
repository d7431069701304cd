#include "terminal/read_ahead_window.h"
#include "terminal/replay_buffer.h"

#include <QTest>

using namespace brinmoor;

// How much of a terminal's output is read ahead of its reader, and how much is kept for
// a reader that attaches.
class TstTerminalFlow : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aReaderNotYetMeasuredHasTheSmallestWindow()
    {
        ReadAheadWindow window;
        QCOMPARE(window.size(), ReadAheadWindow::kMinimum);
        window.rendered(0, 1000);
        QCOMPARE(window.size(), ReadAheadWindow::kMinimum);
    }

    void theWindowIsWhatTheReaderRendersInATenthOfASecond()
    {
        ReadAheadWindow window;
        window.rendered(0, 1000);
        // 600 Ki code units in 200 ms: 300 Ki a tenth of a second.
        window.rendered(600 * 1024, 1200);
        QCOMPARE(window.size(), 300 * 1024);
        // Then 400 Ki in the next 100 ms.
        window.rendered(1000 * 1024, 1300);
        QCOMPARE(window.size(), 400 * 1024);
    }

    void aRateIsMeasuredOverATenthOfASecondAtLeast()
    {
        ReadAheadWindow window;
        window.rendered(0, 1000);
        window.rendered(900 * 1024, 1050);
        QCOMPARE(window.size(), ReadAheadWindow::kMinimum);
        // Measured from the first acknowledgement, not the one between.
        window.rendered(1000 * 1024, 1125);
        QCOMPARE(window.size(), 800 * 1024);
    }

    void theWindowStaysBetweenItsBounds()
    {
        ReadAheadWindow window;
        window.rendered(0, 0);
        window.rendered(50 * 1024 * 1024, 100);
        QCOMPARE(window.size(), ReadAheadWindow::kMaximum);
        // A phone taking 100 KiB a second.
        window.rendered(50 * 1024 * 1024 + 100 * 1024, 1100);
        QCOMPARE(window.size(), ReadAheadWindow::kMinimum);
    }

    void aReaderPacedAfreshIsMeasuredAgain()
    {
        ReadAheadWindow window;
        window.rendered(0, 0);
        window.rendered(800 * 1024, 100);
        QCOMPARE(window.size(), 800 * 1024);
        window.reset();
        QCOMPARE(window.size(), ReadAheadWindow::kMinimum);
        // An offset before the mark (another reader, a restarted count) starts a new one.
        window.rendered(5000 * 1024, 200);
        window.rendered(100, 300);
        QCOMPARE(window.size(), ReadAheadWindow::kMinimum);
        window.rendered(100 + 512 * 1024, 400);
        QCOMPARE(window.size(), 512 * 1024);
    }
    void theReplayKeepsTheNewest128Reads()
    {
        ReplayBuffer buffer;
        for (int i = 1; i <= 130; ++i)
            buffer.keep(QStringLiteral("read %1\n").arg(i));
        QCOMPARE(buffer.reads().size(), ReplayBuffer::kMaxReads);
        QCOMPARE(buffer.reads().first(), QStringLiteral("read 3\n"));
        QCOMPARE(buffer.reads().last(), QStringLiteral("read 130\n"));
        QCOMPARE(buffer.units(), buffer.reads().join(QString()).size());
    }

    void theReplayKeepsAtMostTwoMebiCharacters()
    {
        ReplayBuffer buffer;
        const QString piece(64 * 1024, QLatin1Char('x'));
        for (int i = 0; i < 40; ++i)
            buffer.keep(piece);
        // 32 pieces of 64 Ki are 2 Mi; the 33rd would go past it.
        QCOMPARE(buffer.reads().size(), 32);
        QCOMPARE(buffer.units(), 2 * 1024 * 1024);
        buffer.keep(QString(600, QLatin1Char('z')));
        QCOMPARE(buffer.reads().size(), 32);
        QCOMPARE(buffer.reads().last(), QString(600, QLatin1Char('z')));
        QCOMPARE(buffer.units(), 2 * 1024 * 1024 - piece.size() + 600);
        // 128 reads of 16 KiB, each with a character's rest, are all kept.
        ReplayBuffer plain;
        for (int i = 0; i < 200; ++i)
            plain.keep(QString(16 * 1024 + 3, QLatin1Char('p')));
        QCOMPARE(plain.reads().size(), ReplayBuffer::kMaxReads);
    }

    void aReadLargerThanTheReplayIsKeptWhole()
    {
        ReplayBuffer buffer;
        buffer.keep(QStringLiteral("before"));
        const QString huge(ReplayBuffer::kMaxUnits + 10, QLatin1Char('y'));
        buffer.keep(huge);
        QCOMPARE(buffer.reads(), QStringList{huge});
        buffer.keep(QStringLiteral("after"));
        QCOMPARE(buffer.reads(), QStringList{QStringLiteral("after")});
        QCOMPARE(buffer.units(), 5);
    }
};

QTEST_GUILESS_MAIN(TstTerminalFlow)
#include "tst_terminal_flow.moc"
