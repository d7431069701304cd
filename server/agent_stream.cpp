#include "agent_stream.h"

#include "event_log.h"
#include "protocol/message_types.h"
#include "relay_messages.h"
#include "websocket_frames.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>

#include <charconv>
#include <cstring>

namespace brinmoor::relay {

namespace {

// What an agent may say before its pong or "agent.stream" is held, up to this many
// messages.
constexpr qsizetype kPreludeMessages = 8;
// Messages an agent sends in bulk; relayed without being parsed. (A chat's chunks are
// read: the agent's present has the answer so far.)
constexpr QByteArrayView kTaskLogType = "\"type\":\"task.log\"";
constexpr QByteArrayView kTerminalOutputType = "\"type\":\"terminal.output\"";
constexpr QByteArrayView kSessionIdKey = "\"sessionId\":\"";
constexpr QByteArrayView kTaskIdKey = "\"taskId\":\"";
// Above this a JSON number no longer holds every integer.
// A stream starts at most here, so that 2^40 messages still fit below 2^53.
constexpr qint64 kLargestStreamStart = 9007199254740991LL - (qint64(1) << 40);

// The raw JSON text of a streamed message's string member `key` ("\"sessionId\":\"" of a
// terminal's output, "\"taskId\":\"" of a task's line; escapes kept), found without parsing
// the message: it is the message's one member of that name, and a quote inside a string
// is always escaped.
QByteArrayView quotedValue(QByteArrayView message, QByteArrayView key)
{
    const qsizetype at = message.lastIndexOf(key);
    if (at < 0)
        return {};
    const qsizetype start = at + key.size();
    for (qsizetype i = start; i < message.size(); ++i) {
        if (message[i] == '\\')
            ++i;
        else if (message[i] == '"')
            return message.sliced(start, i - start);
    }
    return {};
}

QByteArray jsonString(const QString& text)
{
    // A one-element array is the simplest way to get the serializer's escaping.
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

} // namespace

AgentStream::Reading AgentStream::read(QByteArrayView payload)
{
    Reading reading;
    reading.body = payload.trimmed();
    const QByteArrayView body = reading.body;
    reading.isObject = body.size() >= 2 && body.front() == '{' && body.back() == '}';
    if (reading.isObject && body.indexOf(kTaskLogType) >= 0)
        reading.bulk = Bulk::TaskLog;
    else if (reading.isObject && body.indexOf(kTerminalOutputType) >= 0)
        reading.bulk = Bulk::TerminalOutput;
    reading.parsed = reading.isObject && (reading.bulk == Bulk::None || body.indexOf("\"agentId\"") >= 0);
    if (reading.parsed) {
        const QJsonDocument document = QJsonDocument::fromJson(body.toByteArray());
        if (document.isObject() && document.object().value(QStringLiteral("type")).isString())
            reading.message = document.object();
    }
    reading.announces =
        reading.message && reading.message->value(QStringLiteral("type")).toString() == MessageTypes::AgentStream;
    return reading;
}

AgentStream::AgentStream(const QString& agentId) : m_prefix("{\"agentId\":" + jsonString(agentId) + ",\"seq\":") {}

bool AgentStream::preludeFull(const Reading& reading) const
{
    return m_learning && !reading.announces && m_prelude.size() >= kPreludeMessages;
}

bool AgentStream::hold(const Reading& reading, QByteArrayView payload)
{
    if (!m_learning)
        return false;
    if (!reading.announces) {
        m_prelude.append(payload.toByteArray());
        return true;
    }
    // The agent numbers its messages: what it said before (its register, sent before it
    // read the hello) comes again in its numbered stream.
    m_learning = false;
    m_prelude.clear();
    return false;
}

QList<QByteArray> AgentStream::endPrelude()
{
    m_learning = false;
    return std::exchange(m_prelude, {});
}

AgentStream::Announcement AgentStream::announce(const QJsonObject& message, EventLog& log, bool numbered)
{
    // Numbered here already (its pong came first): renumbering now could put its
    // messages below what clients have. They stay numbered here.
    if (m_nextSeq != 0)
        return Announcement::Ignored;
    // The agent numbers its messages itself: seqs outlive the relay.
    const qint64 first = wholeNumber(message.value(QStringLiteral("first")));
    const qint64 next = wholeNumber(message.value(QStringLiteral("next")));
    if (first <= 0 || next < first)
        return Announcement::Invalid;
    // A page holds seqs as JavaScript numbers: exact only below 2^53. A stream that could
    // reach that is not taken.
    if (next > kLargestStreamStart)
        return Announcement::OutOfRange;
    start(log, numbered, first, next);
    return Announcement::Started;
}

void AgentStream::numberHere(EventLog& log, bool numbered)
{
    const qint64 made = std::max(QDateTime::currentMSecsSinceEpoch() * 1000, log.headSeq() + 1);
    start(log, numbered, made, made);
}

void AgentStream::start(EventLog& log, bool numbered, qint64 first, qint64 next)
{
    const qint64 head = log.headSeq();
    // What came before the first message this relay numbers, if anything did, is not
    // here; a jump within a stream means the messages between went to an earlier life of
    // the relay. A stream that starts afresh leaves nothing out.
    if (!numbered || (next > head + 1 && next != first))
        log.markLostThrough(next - 1);
    m_nextSeq = next;
    m_skipThrough = head;
}

bool AgentStream::scheduleConfirm()
{
    return !std::exchange(m_confirmScheduled, true);
}

std::optional<qint64> AgentStream::confirm()
{
    m_confirmScheduled = false;
    const qint64 received = m_nextSeq - 1;
    if (received <= m_acked)
        return std::nullopt;
    m_acked = received;
    return received;
}

QByteArray AgentStream::frame(qint64 seq, QByteArrayView message) const
{
    // {"agentId":"ID","seq":N, followed by the message after its opening brace.
    char digits[24];
    const std::to_chars_result printed = std::to_chars(std::begin(digits), std::end(digits), seq);
    const QByteArrayView number(digits, printed.ptr - digits);
    const QByteArrayView rest = message.sliced(1);
    const qsizetype textSize = m_prefix.size() + number.size() + 1 + rest.size();
    char header[10];
    const qsizetype headerSize = ws::writeFrameHeader(header, ws::Text, quint64(textSize));
    QByteArray frame(headerSize + textSize, Qt::Uninitialized);
    char* out = frame.data();
    std::memcpy(out, header, size_t(headerSize));
    out += headerSize;
    std::memcpy(out, m_prefix.constData(), size_t(m_prefix.size()));
    out += m_prefix.size();
    std::memcpy(out, number.data(), size_t(number.size()));
    out += number.size();
    *out++ = ',';
    std::memcpy(out, rest.data(), size_t(rest.size()));
    return frame;
}

QByteArrayView AgentStream::sessionOf(QByteArrayView message)
{
    return quotedValue(message, kSessionIdKey);
}

QByteArrayView AgentStream::taskOf(QByteArrayView message)
{
    return quotedValue(message, kTaskIdKey);
}

} // namespace brinmoor::relay
