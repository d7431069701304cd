#include "terminal/read_ahead_window.h"

#include <QTest>

using namespace brinmoor;

class TstReadAheadWindow : public QObject {
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
};

QTEST_GUILESS_MAIN(TstReadAheadWindow)
#include "tst_read_ahead_window.moc"
