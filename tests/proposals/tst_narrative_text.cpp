#include "chat/chat_text.h"
#include "proposals/narrative_text.h"

#include <QTest>

using namespace brinmoor;
using namespace brinmoor::NarrativeText;
using brinmoor::ChatText::sanitizeForChat;

class TstNarrativeText : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void carriageReturnsBecomeOneLineFeed()
    {
        QCOMPARE(sanitizeForChat(QStringLiteral("a\r\nb\rc")), QStringLiteral("a\nb\nc"));
    }

    void controlCharactersAreRemovedTabSurvives()
    {
        QCOMPARE(
            sanitizeForChat(QStringLiteral("a\x1b[0mb\tc") + QChar(0) + QStringLiteral("d\x7f") + QStringLiteral("é")),
            QStringLiteral("a[0mb\tcdé"));
    }

    void narrativeOfExactly1200CharactersIsWhole()
    {
        const QString text(1200, QLatin1Char('x'));
        QCOMPARE(normalizeNarrativeText(text, 1200), text);
    }

    void narrativeOf1201CharactersIsCutTrimmedAndMarked()
    {
        const QString text = QString(1199, QLatin1Char('x')) + QStringLiteral(" y");
        QCOMPARE(normalizeNarrativeText(text, 1200), QString(1199, QLatin1Char('x')) + QStringLiteral("…"));
    }

    void limitsCountUserPerceivedCharacters()
    {
        // "e" + combining acute accent is one character; a flag is two code points.
        const QString accent = QStringLiteral("e\u0301");
        const QString flag = QStringLiteral("\U0001F1EB\U0001F1F7");
        QCOMPARE(graphemeCount(accent + flag), qsizetype(2));
        const QString text = accent.repeated(3) + flag;
        QCOMPARE(normalizeNarrativeText(text, 4), text);
        QCOMPARE(normalizeNarrativeText(text, 3), accent.repeated(3) + QStringLiteral("…"));
    }

    void machineLinesNeverReachTheNarrative()
    {
        QCOMPARE(normalizeNarrativeText(
                     QStringLiteral("I looked.\n{\"type\":\"x\"}\n  [command] ls\n^D\n\n  Then fixed it.  "), 1200),
                 QStringLiteral("I looked.\nThen fixed it."));
    }

    void onlyEventLinesGiveNoResponse()
    {
        const NarrativeText::ProposalOutput out = parseCodexProposalOutput(
            QStringLiteral("{\"type\":\"thread.started\",\"thread_id\":\"t\"}\n{\"type\":\"turn.completed\"}\n"));
        QCOMPARE(out.responseText, QString());
        QCOMPARE(out.diagnostics, QStringList());
    }

    void plainProseIsTheNarrative()
    {
        const NarrativeText::ProposalOutput out =
            parseCodexProposalOutput(QStringLiteral("  Nothing to change here.\r\nAll good.  "));
        QCOMPARE(out.responseText, QStringLiteral("Nothing to change here.\nAll good."));
    }

    void streamedMessagesWinAndDiagnosticsAreKept()
    {
        const NarrativeText::ProposalOutput out = parseCodexProposalOutput(QStringLiteral(
            "{\"type\":\"item.started\",\"item\":{\"type\":\"command_execution\",\"command\":\"ls\"}}\n"
            "{\"type\":\"item.completed\",\"item\":{\"type\":\"agent_message\",\"text\":\"Found it.\"}}\n"
            "{\"type\":\"item.completed\",\"item\":{\"type\":\"agent_message\",\"text\":\"Fixed the loop.\"}}\n"
            "{\"type\":\"turn.completed\"}"));
        QCOMPARE(out.responseText, QStringLiteral("Found it.\nFixed the loop."));
        QCOMPARE(out.diagnostics, QStringList{QStringLiteral("[command] ls")});
    }

    void genericFallbacks_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("generic");
        QTest::newRow("ready for review") << QStringLiteral("  Proposed Changes Are Ready For Review.  ") << true;
        QTest::newRow("proposed changes for") << QStringLiteral("Proposed changes for app.swift") << true;
        QTest::newRow("keeps the change scoped") << QStringLiteral("This KEEPS THE CHANGE SCOPED.") << true;
        QTest::newRow("satisfy") << QStringLiteral("to satisfy the latest request") << true;
        QTest::newRow("unrelated") << QStringLiteral("it avoids unrelated edits") << true;
        QTest::newRow("what i will change") << QStringLiteral("What I will change: I will update x") << true;
        QTest::newRow("real") << QStringLiteral("The loop ran one step too far; I fixed the bound.") << false;
    }
    void genericFallbacks()
    {
        QFETCH(QString, text);
        QFETCH(bool, generic);
        QCOMPARE(looksLikeGenericProposalFallback(text), generic);
        QCOMPARE(noDiffCommentary(text).has_value(), !generic);
    }

    void structuredOutput()
    {
        QVERIFY(!looksLikeStructuredCodexOutput(QStringLiteral("  ")));
        QVERIFY(looksLikeStructuredCodexOutput(QStringLiteral("x \"type\":\"y\"")));
        QVERIFY(looksLikeStructuredCodexOutput(QStringLiteral("{\n[command] ls\n^D")));
        QVERIFY(!looksLikeStructuredCodexOutput(QStringLiteral("{\nprose")));
    }

    void summaryIsTheFirstLine()
    {
        QCOMPARE(proposalSummary(QStringLiteral("\n  First line. \nSecond.")), QStringLiteral("First line."));
        QCOMPARE(proposalSummary(QString(300, QLatin1Char('a'))), QString(220, QLatin1Char('a')) + QStringLiteral("…"));
        QCOMPARE(proposalSummary(QString()), QString());
    }

    void completionSummaries()
    {
        QCOMPARE(applyCompletionSummary({QStringLiteral("a.txt")}, QString()),
                 QStringLiteral("Applied approved changes to a.txt."));
        QCOMPARE(applyCompletionSummary({QStringLiteral("a"), QStringLiteral("b")}, QStringLiteral("Done")),
                 QStringLiteral("Applied the approved changes to 2 files.\n\nDone"));
        QCOMPARE(applyCompletionSummary({QStringLiteral("a")}, QStringLiteral("Done")),
                 QStringLiteral("Applied the approved changes to 1 file.\n\nDone"));
        QCOMPARE(applyCompletionSummary({}, QStringLiteral("Done")),
                 QStringLiteral("Applied the approved changes.\n\nDone"));
        QCOMPARE(applyCompletionSummary({}, QString()), QStringLiteral("Applied approved changes."));
        QCOMPARE(applyCompletionSummary({QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")}, QString()),
                 QStringLiteral("Applied approved changes to 3 files."));
    }
};

QTEST_GUILESS_MAIN(TstNarrativeText)
#include "tst_narrative_text.moc"
