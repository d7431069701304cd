#include "execution/approval_slot.h"

#include <QTest>

using namespace brinmoor;

// Time-outs are tested with 0 seconds: the time-out then fires on the next turn of the
// event loop, so the order of answer and time-out is decided by the test, not by a clock.
class TstApprovalSlot : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void waiterIsResumedExactlyOnce()
    {
        ApprovalSlot slot;
        QList<bool> answers;
        slot.waitForApproval(QStringLiteral("t"), 0, [&](bool approved) { answers.append(approved); });
        QCOMPARE(slot.pendingApprovalTaskId(), std::optional<QString>(QStringLiteral("t")));
        QVERIFY(slot.hasPendingApproval());
        slot.resolvePendingApproval(true);
        slot.resolvePendingApproval(false);
        // Timers of the same interval fire in the order they were started: once this one
        // has fired, the slot's time-out would have fired too had it not been stopped.
        bool barrier = false;
        QTimer::singleShot(0, this, [&] { barrier = true; });
        QVERIFY(QTest::qWaitFor([&] { return barrier; }, 2000));
        QCOMPARE(answers, QList<bool>{true});
        QCOMPARE(slot.pendingApprovalTaskId(), std::nullopt);
        QVERIFY(!slot.hasPendingApproval());
    }

    void timeOutAnswersNo()
    {
        ApprovalSlot slot;
        QList<bool> answers;
        slot.waitForApproval(QStringLiteral("t"), 0, [&](bool approved) { answers.append(approved); });
        QVERIFY(answers.isEmpty());
        QVERIFY(QTest::qWaitFor([&] { return !answers.isEmpty(); }, 2000));
        QCOMPARE(answers, QList<bool>{false});
        slot.resolvePendingApproval(true); // nothing pending: ignored
        QCOMPARE(answers, QList<bool>{false});
        QCOMPARE(slot.pendingApprovalTaskId(), std::nullopt);
    }

    void laterWaitReplacesAnEarlierOne()
    {
        ApprovalSlot slot;
        QStringList answers;
        slot.waitForApproval(QStringLiteral("a"), 60, [&](bool) { answers.append(QStringLiteral("a")); });
        slot.waitForApproval(QStringLiteral("b"), 60, [&](bool) { answers.append(QStringLiteral("b")); });
        QCOMPARE(slot.pendingApprovalTaskId(), std::optional<QString>(QStringLiteral("b")));
        slot.resolvePendingApproval(false);
        QCOMPARE(answers, QStringList{QStringLiteral("b")});
    }

    void hugeTimeOutIsClampedNotWrapped()
    {
        ApprovalSlot slot;
        QList<bool> answers;
        slot.waitForApproval(QStringLiteral("t"), std::numeric_limits<qint64>::max(),
                             [&](bool approved) { answers.append(approved); });
        bool barrier = false;
        QTimer::singleShot(0, this, [&] { barrier = true; });
        QVERIFY(QTest::qWaitFor([&] { return barrier; }, 2000));
        QVERIFY(answers.isEmpty());
        QVERIFY(slot.hasPendingApproval());
        slot.resolvePendingApproval(true);
        QCOMPARE(answers, QList<bool>{true});
    }
};

QTEST_GUILESS_MAIN(TstApprovalSlot)
#include "tst_approval_slot.moc"
