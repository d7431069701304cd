#include "chat/chat_json_line_parser.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

using namespace brinmoor;

namespace {

QString assistant(const QString& text)
{
    return QStringLiteral(R"({"type":"assistant","message":{"content":[{"type":"text","text":%1}]}})")
        .arg(QString::fromUtf8(QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact)).mid(1).chopped(1));
}

QString agentMessage(const QString& text)
{
    return QStringLiteral(R"({"type":"item.completed","item":{"type":"agent_message","text":"%1"}})").arg(text);
}

} // namespace

class TstChatJSONLineParser : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void lineSplitAcrossTwoChunksIsParsedOnceAfterTheSecond()
    {
        ChatJSONLineParser parser(ChatJSONProvider::codex);
        const QString line = QStringLiteral(R"({"type":"thread.started","thread_id":"th-1"})") + QLatin1Char('\n');
        const ParseResult first = parser.process(line.left(20));
        QVERIFY(first.isEmpty());
        const ParseResult second = parser.process(line.mid(20));
        QCOMPARE(second.threadID, std::optional<QString>(QStringLiteral("th-1")));
    }

    void noiseAroundTheObjectIsIgnored()
    {
        QCOMPARE(ChatJSONLineParser::normalizedJSONLine(u"\x1b[0m{\"a\":1}\x1b[K trailing"),
                 std::optional<QString>(QStringLiteral("{\"a\":1}")));
        ChatJSONLineParser parser(ChatJSONProvider::codex);
        const ParseResult result =
            parser.process(QStringLiteral("\x1b[2Knoise {\"type\":\"thread.started\",\"thread_id\":\"x\"} more\n"));
        QCOMPARE(result.threadID, std::optional<QString>(QStringLiteral("x")));
    }

    void braceInsideAStringOrAnEscapedQuoteDoesNotEndTheObject()
    {
        QCOMPARE(ChatJSONLineParser::normalizedJSONLine(u"x {\"a\":\"}{ \\\" }\",\"b\":{\"c\":1}} y"),
                 std::optional<QString>(QStringLiteral("{\"a\":\"}{ \\\" }\",\"b\":{\"c\":1}}")));
        QCOMPARE(ChatJSONLineParser::normalizedJSONLine(u"{\"a\":\"\\\\\"}"),
                 std::optional<QString>(QStringLiteral("{\"a\":\"\\\\\"}")));
    }

    void unbalancedOrBracelessLinesYieldNothing()
    {
        QCOMPARE(ChatJSONLineParser::normalizedJSONLine(u"{\"a\":{\"b\":1}"), std::nullopt);
        QCOMPARE(ChatJSONLineParser::normalizedJSONLine(u"plain text"), std::nullopt);
    }

    void claudeCumulativeAssistantTextYieldsDeltas()
    {
        ChatJSONLineParser parser(ChatJSONProvider::claude);
        QCOMPARE(parser.process(assistant(QStringLiteral("Hel")) + QLatin1Char('\n')).deltas,
                 QStringList{QStringLiteral("Hel")});
        QCOMPARE(parser.process(assistant(QStringLiteral("Hello")) + QLatin1Char('\n')).deltas,
                 QStringList{QStringLiteral("lo")});
        QCOMPARE(parser.process(assistant(QStringLiteral("Hell")) + QLatin1Char('\n')).deltas, QStringList{});
    }

    void claudeResultEqualToTheStreamedTextSetsOnlyTheFinalText()
    {
        ChatJSONLineParser parser(ChatJSONProvider::claude);
        parser.process(assistant(QStringLiteral("Done.")) + QLatin1Char('\n'));
        const ParseResult result =
            parser.process(QStringLiteral(R"({"type":"result","subtype":"success","result":" Done. "})") + "\n");
        QCOMPARE(result.deltas, QStringList{});
        QCOMPARE(result.finalText, std::optional<QString>(QStringLiteral("Done.")));
    }

    void claudeLongerResultSendsTheRest()
    {
        ChatJSONLineParser parser(ChatJSONProvider::claude);
        parser.process(assistant(QStringLiteral("Part")) + QLatin1Char('\n'));
        const ParseResult result = parser.process(QStringLiteral(R"({"type":"result","result":"Part two"})") + "\n");
        QCOMPARE(result.deltas, QStringList{QStringLiteral(" two")});
        QCOMPARE(result.finalText, std::optional<QString>(QStringLiteral("Part two")));
        QVERIFY(parser.process(QStringLiteral(R"({"type":"result","result":"  "})") + "\n").isEmpty());
    }

    void deltasCountCodePointsAndNeverSplitACharacter()
    {
        ChatJSONLineParser parser(ChatJSONProvider::claude);
        QCOMPARE(parser.process(assistant(QStringLiteral("😀a")) + QLatin1Char('\n')).deltas,
                 QStringList{QStringLiteral("😀a")});
        QCOMPARE(parser.process(assistant(QStringLiteral("😀ab😀")) + QLatin1Char('\n')).deltas,
                 QStringList{QStringLiteral("b😀")});
        QCOMPARE(codePointLength(u"😀ab😀"), qint64(4));
    }

    void claudeToolErrorsAndStreamErrorsAreDiagnostics()
    {
        ChatJSONLineParser parser(ChatJSONProvider::claude);
        const QString toolError = QStringLiteral(
            R"({"type":"assistant","message":{"content":[{"type":"tool_result","is_error":true,"tool_name":"Bash","content":[{"text":" denied "},{"message":"twice"},{"text":""}]},{"type":"tool_result","is_error":true,"content":"  "},{"type":"tool_result","is_error":"true","content":"x"}]}})");
        const ParseResult result = parser.process(
            toolError + QStringLiteral("\n{\"type\":\"error\",\"message\":\"overloaded\"}\n{\"type\":\"error\"}\n"));
        QCOMPARE(result.diagnostics, (QStringList{QStringLiteral("[tool.error] Bash: denied | twice"),
                                                  QStringLiteral("[tool.error] tool: no details"),
                                                  QStringLiteral("[stream.error] overloaded"),
                                                  QStringLiteral("[stream.error] unknown stream error")}));
        QCOMPARE(result.deltas, QStringList{});
    }

    void claudeFailedResultIsReportedOnceBesidesItsText()
    {
        ChatJSONLineParser parser(ChatJSONProvider::claude);
        const QString failed = QStringLiteral(
            R"({"type":"result","subtype":"success","is_error":true,"result":" API Error: 400 The fake model refuses this prompt. "})");
        const ParseResult first = parser.process(failed + "\n" + failed + "\n");
        QCOMPARE(first.diagnostics,
                 QStringList{QStringLiteral("[claude.error] API Error: 400 The fake model refuses this prompt.")});
        QCOMPARE(first.deltas, QStringList{QStringLiteral("API Error: 400 The fake model refuses this prompt.")});
        QCOMPARE(first.finalText,
                 std::optional<QString>(QStringLiteral("API Error: 400 The fake model refuses this prompt.")));

        const ParseResult withoutText =
            parser.process(QStringLiteral("{\"type\":\"result\",\"subtype\":\"error_max_turns\",\"is_error\":true}\n"
                                          "{\"type\":\"result\",\"is_error\":true,\"result\":\"\"}\n"
                                          "{\"type\":\"result\",\"is_error\":false,\"result\":\"fine\"}\n"
                                          "{\"type\":\"result\",\"is_error\":\"true\",\"result\":\"fine\"}\n"));
        QCOMPARE(withoutText.diagnostics, (QStringList{QStringLiteral("[claude.error] error_max_turns"),
                                                       QStringLiteral("[claude.error] unknown error")}));
    }

    void codexErrorsAndFailedTurnsAreReportedOnceEach()
    {
        ChatJSONLineParser parser(ChatJSONProvider::codex);
        const QString lines = QStringLiteral(
            "{\"type\":\"error\",\"message\":\"Reconnecting... 1/5\"}\n"
            "{\"type\":\"error\",\"message\":\" The fake model refuses this prompt. \"}\n"
            "{\"type\":\"turn.failed\",\"error\":{\"message\":\"The fake model refuses this prompt.\"}}\n"
            "{\"type\":\"error\",\"message\":\"The fake model refuses this prompt.\"}\n"
            "{\"type\":\"error\"}\n"
            "{\"type\":\"turn.failed\",\"error\":\" gone \"}\n"
            "{\"type\":\"turn.failed\"}\n");
        const ParseResult result = parser.process(lines);
        QCOMPARE(result.diagnostics,
                 (QStringList{QStringLiteral("[codex.error] Reconnecting... 1/5"),
                              QStringLiteral("[codex.error] The fake model refuses this prompt."),
                              QStringLiteral("[codex.turn.failed] The fake model refuses this prompt."),
                              QStringLiteral("[codex.error] unknown error"), QStringLiteral("[codex.turn.failed] gone"),
                              QStringLiteral("[codex.turn.failed] unknown error")}));
        QCOMPARE(result.deltas, QStringList{});
        QCOMPARE(result.finalText, std::nullopt);
        // The other grammar does not know these events.
        ChatJSONLineParser claude(ChatJSONProvider::claude);
        QVERIFY(claude.process(QStringLiteral("{\"type\":\"turn.failed\",\"error\":{\"message\":\"x\"}}\n")).isEmpty());
    }

    void extractToolContentShapes_data()
    {
        QTest::addColumn<QString>("content");
        QTest::addColumn<QString>("expected");
        QTest::newRow("absent") << QString() << QStringLiteral("no details");
        QTest::newRow("blank string") << QStringLiteral("\"  \"") << QStringLiteral("no details");
        QTest::newRow("object message") << QStringLiteral(R"({"message":" m ","text":"t"})") << QStringLiteral("m");
        QTest::newRow("object text") << QStringLiteral(R"({"message":" ","text":"t"})") << QStringLiteral("t");
        QTest::newRow("object neither") << QStringLiteral(R"({"other":1})")
                                        << QStringLiteral("unreadable tool error payload");
        QTest::newRow("number") << QStringLiteral("5") << QStringLiteral("unreadable tool error payload");
        QTest::newRow("null") << QStringLiteral("null") << QStringLiteral("unreadable tool error payload");
        QTest::newRow("list") << QStringLiteral(R"([{"text":" a "},{"message":"b"},{"text":""},{"x":1},"s"])")
                              << QStringLiteral("a | b");
    }
    void extractToolContentShapes()
    {
        QFETCH(QString, content);
        QFETCH(QString, expected);
        const QString event = QStringLiteral(R"({"c":%1})").arg(content.isEmpty() ? QStringLiteral("0") : content);
        JsonReader reader;
        QVERIFY(reader.parse(event));
        const JsonReader::Node value = content.isEmpty() ? -1 : reader.member(reader.root(), u"c");
        QCOMPARE(ChatJSONLineParser::extractToolContent(reader, value), expected);
    }

    void twoCodexMessagesJoinWithANewline()
    {
        ChatJSONLineParser parser(ChatJSONProvider::codex);
        QCOMPARE(parser.process(agentMessage(QStringLiteral("A")) + QLatin1Char('\n')).deltas,
                 QStringList{QStringLiteral("A")});
        QCOMPARE(parser.process(agentMessage(QStringLiteral(" B ")) + QLatin1Char('\n')).deltas,
                 QStringList{QStringLiteral("\nB")});
        const ParseResult done = parser.process(QStringLiteral("{\"type\":\"turn.completed\"}\n"));
        QCOMPARE(done.finalText, std::optional<QString>(QStringLiteral("A\nB")));
    }

    void turnCompletedWithoutMessagesHasNoFinalText()
    {
        ChatJSONLineParser parser(ChatJSONProvider::codex);
        QVERIFY(parser.process(QStringLiteral("{\"type\":\"turn.completed\"}\n")).isEmpty());
    }

    void sameCommandDiagnosticIsReportedOnce()
    {
        ChatJSONLineParser parser(ChatJSONProvider::codex);
        const QString started =
            QStringLiteral(R"({"type":"item.started","item":{"type":"command_execution","command":" ls -la "}})");
        const QString completed = QStringLiteral(
            R"({"type":"item.completed","item":{"type":"command_execution","aggregated_output":"a\nb\n"}})");
        const ParseResult first = parser.process(started + "\n" + completed + "\n" + started + "\n");
        QCOMPARE(first.diagnostics,
                 (QStringList{QStringLiteral("[command] ls -la"), QStringLiteral("[command.output] a\nb")}));
        QVERIFY(parser.process(started + "\n").isEmpty());
    }

    void repeatedThreadIdIsReportedOnce()
    {
        ChatJSONLineParser parser(ChatJSONProvider::codex);
        const QString line = QStringLiteral(R"({"type":"thread.started","thread_id":" th "})") + "\n";
        QCOMPARE(parser.process(line).threadID, std::optional<QString>(QStringLiteral("th")));
        QCOMPARE(parser.process(line).threadID, std::nullopt);
    }

    void invalidJsonLineProducesNothing()
    {
        ChatJSONLineParser claude(ChatJSONProvider::claude);
        QVERIFY(claude.process(QStringLiteral("{\"type\":\"result\",\"result\":}\n[1,2]\n{\"type\": \n")).isEmpty());
        ChatJSONLineParser codex(ChatJSONProvider::codex);
        QVERIFY(codex.process(QStringLiteral("{not json}\n\n   \n")).isEmpty());
    }

    void carriageReturnsEndLines()
    {
        ChatJSONLineParser parser(ChatJSONProvider::codex);
        const ParseResult result = parser.process(agentMessage(QStringLiteral("A")) + QStringLiteral("\r\n") +
                                                  agentMessage(QStringLiteral("B")) + QStringLiteral("\r"));
        QCOMPARE(result.deltas, (QStringList{QStringLiteral("A"), QStringLiteral("\nB")}));
    }

    void finishParsesTheUnterminatedLastLine()
    {
        ChatJSONLineParser parser(ChatJSONProvider::claude);
        QVERIFY(parser.process(QStringLiteral(R"({"type":"result","result":"end"})")).isEmpty());
        const ParseResult last = parser.finish();
        QCOMPARE(last.finalText, std::optional<QString>(QStringLiteral("end")));
        QVERIFY(parser.finish().isEmpty());
    }

    void unknownEventsAreIgnored()
    {
        ChatJSONLineParser claude(ChatJSONProvider::claude);
        QVERIFY(
            claude.process(QStringLiteral("{\"type\":\"system\",\"subtype\":\"init\"}\n{\"no\":\"type\"}\n")).isEmpty());
        ChatJSONLineParser codex(ChatJSONProvider::codex);
        QVERIFY(codex.process(QStringLiteral("{\"type\":\"turn.started\"}\n") + assistant(QStringLiteral("x")) + "\n")
                    .isEmpty());
    }

    void synchronizedTextBufferAppends()
    {
        SynchronizedTextBuffer buffer;
        buffer.append(QStringLiteral("a"));
        buffer.append(QStringLiteral("b"));
        QCOMPARE(buffer.value(), QStringLiteral("ab"));
    }
};

QTEST_GUILESS_MAIN(TstChatJSONLineParser)
#include "tst_chat_json_line_parser.moc"
