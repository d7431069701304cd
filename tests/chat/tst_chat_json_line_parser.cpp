// The chat stream parser, on hand-made lines for each rule and on lines the released
// tools printed (tests/execution/data).
#include "chat/chat_json_line_parser.h"
#include "support/test_support.h"

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

QString jsonLine(const QJsonObject& object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)) + QLatin1Char('\n');
}

// An "assistant" event of one message carrying the given content blocks.
QString assistantBlocks(const QString& messageId, const QJsonArray& content)
{
    return jsonLine({{"type", "assistant"}, {"message", QJsonObject{{"id", messageId}, {"content", content}}}});
}

QJsonObject textBlock(const QString& text)
{
    return {{"type", "text"}, {"text", text}};
}

QJsonObject toolUse(const QString& id, const QString& name)
{
    return {{"type", "tool_use"}, {"id", id}, {"name", name}, {"input", QJsonObject()}};
}

QString streamEvent(const QJsonObject& event)
{
    return jsonLine({{"type", "stream_event"}, {"event", event}});
}

QString recorded(const QString& name)
{
    return QString::fromUtf8(test::readFile(QStringLiteral(BRINMOOR_TEST_DATA_DIR "/") + name));
}

// Everything a parser makes of a text handed to it in pieces of `piece` characters
// (0: all at once), the end of the stream included.
ParseResult parseAll(ChatJSONProvider provider, const QString& text, qsizetype piece = 0)
{
    ChatJSONLineParser parser(provider);
    ParseResult all;
    const auto add = [&all](const ParseResult& part) {
        all.deltas += part.deltas;
        all.diagnostics += part.diagnostics;
        if (part.finalText)
            all.finalText = part.finalText;
        if (part.threadID)
            all.threadID = part.threadID;
    };
    const qsizetype step = piece > 0 ? piece : text.size();
    for (qsizetype at = 0; at < text.size(); at += step)
        add(parser.process(text.mid(at, step)));
    add(parser.finish());
    return all;
}

const QString kAnswerAfterTools = QStringLiteral("There are two files here: a.txt and b.txt.");

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
    }

    void claudeBlocksOfTheRealReleaseJoinWithABlankLine()
    {
        // One "assistant" event per content block, each with only that block's text.
        const ParseResult result = parseAll(ChatJSONProvider::claude, recorded("claude-2.1.330-tools.jsonl"));
        QCOMPARE(result.deltas, (QStringList{QStringLiteral("Let me look."), QStringLiteral("\n\nNow the missing one."),
                                             QStringLiteral("\n\n") + kAnswerAfterTools}));
        QCOMPARE(result.diagnostics,
                 QStringList{QStringLiteral("[tool.error] Read: File does not exist. Note: your current working "
                                            "directory is /tmp/brinmoor-rec/claude-tools/App.")});
        QCOMPARE(result.finalText, std::optional<QString>(kAnswerAfterTools));
        QCOMPARE(result.threadID, std::nullopt);
    }

    void claudePartialMessagesStreamTheSameAnswerAsItIsWritten()
    {
        const ParseResult whole = parseAll(ChatJSONProvider::claude, recorded("claude-2.1.330-tools.jsonl"));
        const QString partial = recorded("claude-2.1.330-tools-partial.jsonl");
        const ParseResult streamed = parseAll(ChatJSONProvider::claude, partial);
        // The model's text deltas as they came; the assembled events add nothing.
        QCOMPARE(
            streamed.deltas,
            (QStringList{QStringLiteral("Let me "), QStringLiteral("look."), QStringLiteral("\n\nNow the missing one."),
                         QStringLiteral("\n\nThere are two "), QStringLiteral("files here: a.txt and b.txt.")}));
        QCOMPARE(streamed.deltas.join(QString()), whole.deltas.join(QString()));
        QCOMPARE(streamed.diagnostics, whole.diagnostics);
        QCOMPARE(streamed.finalText, whole.finalText);
        // However the pipe cuts the output.
        for (const qsizetype piece : {1, 7, 4096}) {
            const ParseResult cut = parseAll(ChatJSONProvider::claude, partial, piece);
            QCOMPARE(cut.deltas.join(QString()), whole.deltas.join(QString()));
            QCOMPARE(cut.diagnostics, whole.diagnostics);
        }
    }

    void claudeDeniedToolIsReportedWithTheNameOfItsToolUse()
    {
        const ParseResult result = parseAll(ChatJSONProvider::claude, recorded("claude-2.1.330-denied.jsonl"));
        QCOMPARE(result.deltas, (QStringList{QStringLiteral("I will write the notes."),
                                             QStringLiteral("\n\nI was not allowed to write notes.txt.")}));
        QCOMPARE(result.diagnostics,
                 QStringList{QStringLiteral("[tool.error] Write: Claude requested permissions to write to "
                                            "/tmp/brinmoor-rec/claude-denied/App/notes.txt, but you haven't granted "
                                            "it yet.")});
        QCOMPARE(result.finalText, std::optional<QString>(QStringLiteral("I was not allowed to write notes.txt.")));
    }

    void claudeApiErrorIsSentOnceAndReported()
    {
        const QString error = QStringLiteral(
            "API Error: 500 Internal server error. This is a server-side issue, usually temporary — try again in a "
            "moment. If it persists, check your inference gateway (127.0.0.1:43745).");
        const ParseResult result = parseAll(ChatJSONProvider::claude, recorded("claude-2.1.330-api-error.jsonl"));
        QCOMPARE(result.deltas, QStringList{error});
        QCOMPARE(result.diagnostics, QStringList{QStringLiteral("[claude.error] ") + error});
        QCOMPARE(result.finalText, std::optional<QString>(error));
    }

    void claudeTextIsNeverComparedWithAnotherBlock()
    {
        // A text block after a tool use in the same message, and a new message whose
        // text begins like the block before it: both are sent whole.
        const QString lines =
            assistantBlocks(QStringLiteral("msg_1"), {textBlock(QStringLiteral("Let me look."))}) +
            assistantBlocks(QStringLiteral("msg_1"), {toolUse(QStringLiteral("t1"), "Bash")}) +
            assistantBlocks(QStringLiteral("msg_1"), {textBlock(QStringLiteral("Let me look."))}) +
            assistantBlocks(QStringLiteral("msg_2"), {textBlock(QStringLiteral("Let me look again."))}) +
            assistantBlocks(QStringLiteral("msg_2"), {textBlock(QStringLiteral("Let me look again!"))}) +
            jsonLine({{"type", "result"}, {"result", "Let me look again!"}});
        const ParseResult result = parseAll(ChatJSONProvider::claude, lines);
        QCOMPARE(result.deltas,
                 (QStringList{QStringLiteral("Let me look."), QStringLiteral("\n\nLet me look."),
                              QStringLiteral("\n\nLet me look again."), QStringLiteral("\n\nLet me look again!")}));
        QCOMPARE(result.finalText, std::optional<QString>(QStringLiteral("Let me look again!")));
    }

    void claudeAssembledEventAfterItsStreamedBlockAddsNothing()
    {
        const QString lines =
            streamEvent({{"type", "message_start"}, {"message", QJsonObject{{"id", "msg_1"}}}}) +
            streamEvent({{"type", "content_block_start"}, {"index", 0}, {"content_block", textBlock(QString())}}) +
            streamEvent({{"type", "content_block_delta"},
                         {"index", 0},
                         {"delta", QJsonObject{{"type", "text_delta"}, {"text", "Hel"}}}}) +
            streamEvent({{"type", "content_block_delta"},
                         {"index", 0},
                         {"delta", QJsonObject{{"type", "text_delta"}, {"text", "lo."}}}}) +
            streamEvent({{"type", "content_block_stop"}, {"index", 0}}) +
            streamEvent({{"type", "content_block_start"},
                         {"index", 1},
                         {"content_block", QJsonObject{{"type", "text"}, {"text", "Bye"}}}}) +
            streamEvent({{"type", "content_block_delta"},
                         {"index", 1},
                         {"delta", QJsonObject{{"type", "input_json_delta"}, {"partial_json", "{}"}}}}) +
            // The assembled events, late: both blocks were sent already.
            assistantBlocks(QStringLiteral("msg_1"), {textBlock(QStringLiteral("Hello."))}) +
            assistantBlocks(QStringLiteral("msg_1"), {textBlock(QStringLiteral("Bye"))}) +
            streamEvent({{"type", "content_block_delta"},
                         {"index", 1},
                         {"delta", QJsonObject{{"type", "text_delta"}, {"text", "!"}}}}) +
            jsonLine({{"type", "result"}, {"result", "Bye!"}});
        const ParseResult result = parseAll(ChatJSONProvider::claude, lines);
        QCOMPARE(result.deltas, (QStringList{QStringLiteral("Hel"), QStringLiteral("lo."), QStringLiteral("\n\nBye"),
                                             QStringLiteral("!")}));
        QCOMPARE(result.finalText, std::optional<QString>(QStringLiteral("Bye!")));
    }

    void claudeToolResultErrorsNameTheirToolUse()
    {
        const QString lines =
            assistantBlocks(QStringLiteral("msg_1"), {toolUse(QStringLiteral("toolu_1"), QStringLiteral("Edit"))}) +
            jsonLine(
                {{"type", "user"},
                 {"message",
                  QJsonObject{{"role", "user"},
                              {"content", QJsonArray{QJsonObject{{"type", "tool_result"},
                                                                 {"tool_use_id", "toolu_1"},
                                                                 {"is_error", true},
                                                                 {"content", " not found "}},
                                                     QJsonObject{{"type", "tool_result"},
                                                                 {"tool_use_id", "toolu_2"},
                                                                 {"is_error", true},
                                                                 {"content", QJsonArray{QJsonObject{
                                                                                 {"type", "text"}, {"text", "gone"}}}}},
                                                     QJsonObject{{"type", "tool_result"},
                                                                 {"tool_use_id", "toolu_1"},
                                                                 {"is_error", false},
                                                                 {"content", "fine"}}}}}}}) +
            jsonLine({{"type", "user"}, {"message", QJsonObject{{"role", "user"}, {"content", "a prompt"}}}});
        const ParseResult result = parseAll(ChatJSONProvider::claude, lines);
        QCOMPARE(result.diagnostics, (QStringList{QStringLiteral("[tool.error] Edit: not found"),
                                                  QStringLiteral("[tool.error] tool: gone")}));
        QCOMPARE(result.deltas, QStringList{});
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

    void codexLinesOfTheRealRelease()
    {
        const ParseResult result = parseAll(ChatJSONProvider::codex, recorded("codex-0.169.0-tools.jsonl"));
        QCOMPARE(result.deltas,
                 (QStringList{QStringLiteral("Let me look."), QStringLiteral("\nThere are two files here.")}));
        QCOMPARE(result.diagnostics, (QStringList{QStringLiteral("[command] /bin/bash -c ls"),
                                                  QStringLiteral("[command.output] a.txt\nb.txt")}));
        QCOMPARE(result.finalText, std::optional<QString>(QStringLiteral("Let me look.\nThere are two files here.")));
        QCOMPARE(result.threadID, std::optional<QString>(QStringLiteral("01a20953-cbc4-79e0-a7e4-aec08172f9d4")));

        const ParseResult allowed = parseAll(ChatJSONProvider::codex, recorded("codex-0.169.0-approval-allowed.jsonl"));
        QCOMPARE(allowed.deltas, QStringList{QStringLiteral("Touched allowed.txt.")});
        QCOMPARE(allowed.diagnostics, QStringList{QStringLiteral("[command] /bin/bash -c 'touch allowed.txt'")});
    }

    void codexMessageReportedWhileWrittenIsStreamed()
    {
        const auto item = [](const char* event, const char* id, const char* text) {
            return jsonLine(
                {{"type", event}, {"item", QJsonObject{{"id", id}, {"type", "agent_message"}, {"text", text}}}});
        };
        const QString lines = item("item.started", "item_1", "") + item("item.updated", "item_1", "He") +
                              item("item.updated", "item_1", "Hello") + item("item.updated", "item_1", "Hel") +
                              item("item.completed", "item_1", "Hello.") + item("item.completed", "item_1", "Hello.") +
                              item("item.completed", "item_2", "Next.") + jsonLine({{"type", "turn.completed"}});
        const ParseResult result = parseAll(ChatJSONProvider::codex, lines);
        QCOMPARE(result.deltas, (QStringList{QStringLiteral("He"), QStringLiteral("llo"), QStringLiteral("."),
                                             QStringLiteral("\nNext.")}));
        QCOMPARE(result.finalText, std::optional<QString>(QStringLiteral("Hello.\nNext.")));
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
