#include "sessions/codex_rollouts.h"

#include "base/platform.h"
#include "sessions/session_text.h"
#include "sessions/transcript_file.h"

#include <QDirIterator>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMutex>
#include <QRegularExpression>

namespace brinmoor::CodexRollouts {

namespace {

// The first line names the folder near its start; the rest of it (the model's
// instructions) can be long.
constexpr qint64 kMetaBytes = 4096;
constexpr qint64 kFirstLineBytes = 1024 * 1024;

// What the agent learnt of a rollout: its folder never changes; the prompts are counted
// up to `counted` bytes.
struct Known {
    explicit Known(QString folder = QString()) : cwd(std::move(folder)) {}
    QString cwd;
    qint64 counted = 0;
    int prompts = 0;
    QString firstPrompt;
    bool started = false; // the first prompt was seen
};

QMutex g_mutex;
QHash<QString, Known> g_known;

const QRegularExpression& threadIdPattern()
{
    static const QRegularExpression id(QStringLiteral("([0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-"
                                                      "[0-9a-fA-F]{12})\\.jsonl$"));
    return id;
}

QString threadIdOf(const QString& fileName)
{
    const QRegularExpressionMatch match = threadIdPattern().match(fileName);
    return match.hasMatch() ? match.captured(1) : QString();
}

// The folder the first line names: codex writes it near the line's start; a line that
// has it further on is read whole.
QString cwdOf(const QString& path)
{
    const QByteArray head = TranscriptFile::read(path, 0, kMetaBytes);
    static const QRegularExpression cwd(QStringLiteral("\"cwd\":(\"(?:[^\"\\\\]|\\\\.)*\")"));
    const QRegularExpressionMatch match = cwd.match(QString::fromUtf8(head));
    if (match.hasMatch()) // the JSON string as JSON reads it
        return QJsonDocument::fromJson("[" + match.captured(1).toUtf8() + "]").array().at(0).toString();
    const QList<QByteArray> first = TranscriptFile::headLines(path, kFirstLineBytes);
    if (first.isEmpty())
        return {};
    return QJsonDocument::fromJson(first.first())
        .object()
        .value(QStringLiteral("payload"))
        .toObject()
        .value(QStringLiteral("cwd"))
        .toString();
}

// The prompt a line records the user typing, if it records one.
std::optional<QString> promptOf(const QByteArray& text)
{
    if (!text.contains("\"user_message\"") && !text.contains("\"UserMessage\""))
        return std::nullopt;
    const QJsonObject line = QJsonDocument::fromJson(text).object();
    if (line.value(QStringLiteral("type")).toString() != QLatin1String("event_msg"))
        return std::nullopt;
    const QJsonObject payload = line.value(QStringLiteral("payload")).toObject();
    const QString type = payload.value(QStringLiteral("type")).toString();
    if (type == QLatin1String("user_message"))
        return payload.value(QStringLiteral("message")).toString();
    const QJsonObject item = payload.value(QStringLiteral("item")).toObject();
    if (type != QLatin1String("item_completed") || item.value(QStringLiteral("type")).toString() != "UserMessage")
        return std::nullopt;
    QString prompt;
    for (const QJsonValue& part : item.value(QStringLiteral("content")).toArray())
        prompt += part.toObject().value(QStringLiteral("text")).toString();
    return prompt;
}

// Counts the prompts written since the last count.
void countPrompts(const QString& path, qint64 size, Known& known)
{
    if (size < known.counted)
        known = Known(known.cwd);
    if (size == known.counted)
        return;
    // Only whole lines count; a line still being written is counted next time.
    const QByteArray added = TranscriptFile::read(path, known.counted, size - known.counted);
    const qsizetype end = added.lastIndexOf('\n') + 1;
    for (const QByteArray& line : QByteArrayView(added).first(end).toByteArray().split('\n')) {
        if (const std::optional<QString> prompt = promptOf(line)) {
            ++known.prompts;
            if (!known.started)
                known.firstPrompt = *prompt;
            known.started = true;
        }
    }
    known.counted += end;
}

struct Rollout {
    QString path;
    TranscriptFile::Stat stat;
};

QList<Rollout> rollouts(const QString& codexHome)
{
    QList<Rollout> found;
    QDirIterator files(codexHome + QStringLiteral("/sessions"), {QStringLiteral("rollout-*.jsonl")}, QDir::Files,
                       QDirIterator::Subdirectories);
    while (files.hasNext()) {
        Rollout rollout{files.next(), {}};
        if (TranscriptFile::stat(rollout.path, &rollout.stat))
            found.append(rollout);
    }
    return found;
}

DeskSession summary(const Rollout& rollout, Known& known)
{
    countPrompts(rollout.path, rollout.stat.size, known);
    DeskSession session;
    session.tool = QStringLiteral("codex");
    session.id = threadIdOf(rollout.path);
    session.path = rollout.path;
    session.cwd = known.cwd;
    session.updatedAt = QDateTime::fromMSecsSinceEpoch(rollout.stat.modifiedMs, Qt::UTC);
    session.messages = known.prompts;
    const SessionText::Prompt typed = SessionText::userPrompt(known.firstPrompt);
    session.title = SessionText::title(typed.text);
    session.startedByPhone = typed.fromPhone;
    return session;
}

QString textOf(const QJsonArray& content)
{
    QString text;
    for (const QJsonValue& part : content)
        text += part.toObject().value(QStringLiteral("text")).toString();
    return text;
}

} // namespace

QList<DeskSession> list(const QString& codexHome, const QString& workingDir, qsizetype limit)
{
    const QString canonical = QFileInfo(workingDir).canonicalFilePath();
    QList<Rollout> mine;
    QMutexLocker lock(&g_mutex);
    for (const Rollout& rollout : rollouts(codexHome)) {
        auto known = g_known.find(rollout.path);
        if (known == g_known.end())
            known = g_known.insert(rollout.path, Known(cwdOf(rollout.path)));
        if (!known->cwd.isEmpty() && (known->cwd == workingDir || known->cwd == canonical))
            mine.append(rollout);
    }
    std::sort(mine.begin(), mine.end(),
              [](const Rollout& a, const Rollout& b) { return a.stat.modifiedMs > b.stat.modifiedMs; });
    QList<DeskSession> sessions;
    for (const Rollout& rollout : mine) {
        if (sessions.size() >= limit)
            break;
        sessions.append(summary(rollout, g_known[rollout.path]));
    }
    return sessions;
}

QString rolloutOf(const QString& codexHome, const QString& id)
{
    if (threadIdOf(id + QStringLiteral(".jsonl")) != id)
        return {};
    QDirIterator files(codexHome + QStringLiteral("/sessions"), {QStringLiteral("rollout-*-") + id + ".jsonl"},
                       QDir::Files, QDirIterator::Subdirectories);
    return files.hasNext() ? files.next() : QString();
}

DeskSession find(const QString& codexHome, const QString& id)
{
    Rollout rollout{rolloutOf(codexHome, id), {}};
    if (rollout.path.isEmpty() || !TranscriptFile::stat(rollout.path, &rollout.stat))
        return {};
    QMutexLocker lock(&g_mutex);
    auto known = g_known.find(rollout.path);
    if (known == g_known.end())
        known = g_known.insert(rollout.path, Known(cwdOf(rollout.path)));
    return summary(rollout, *known);
}

bool isWritten(const QString& codexHome, const QString& id)
{
    return Platform::fileLocked(codexHome + QStringLiteral("/thread-writer-locks/") + id + QStringLiteral(".lock"));
}

QList<SessionItem> items(const QString& path)
{
    return itemsOfLines(TranscriptFile::allLines(path));
}

QList<SessionItem> itemsOfLines(const QList<QByteArray>& lines)
{
    QList<SessionItem> items;
    for (const QByteArray& text : lines) {
        if (const std::optional<QString> prompt = promptOf(text)) {
            const QJsonObject line = QJsonDocument::fromJson(text).object();
            items.append({QStringLiteral("user"),
                          SessionText::userPrompt(*prompt).text,
                          {},
                          false,
                          line.value(QStringLiteral("timestamp")).toString()});
            continue;
        }
        if (!text.contains("\"response_item\""))
            continue;
        const QJsonObject line = QJsonDocument::fromJson(text).object();
        if (line.value(QStringLiteral("type")).toString() != QLatin1String("response_item"))
            continue;
        const QString at = line.value(QStringLiteral("timestamp")).toString();
        const QJsonObject item = line.value(QStringLiteral("payload")).toObject();
        const QString type = item.value(QStringLiteral("type")).toString();
        if (type == QLatin1String("message") && item.value(QStringLiteral("role")).toString() == "assistant") {
            items.append(
                {QStringLiteral("assistant"), textOf(item.value(QStringLiteral("content")).toArray()), {}, false, at});
        } else if (type == QLatin1String("function_call") || type == QLatin1String("custom_tool_call")) {
            const QJsonValue arguments = item.value(type == QLatin1String("function_call") ? QStringLiteral("arguments")
                                                                                           : QStringLiteral("input"));
            const QJsonDocument parsed = QJsonDocument::fromJson(arguments.toString().toUtf8());
            items.append({QStringLiteral("tool_use"),
                          SessionText::toolInput(parsed.isObject() ? QJsonValue(parsed.object()) : arguments),
                          item.value(QStringLiteral("name")).toString(), false, at});
        } else if (type == QLatin1String("local_shell_call")) {
            const QJsonValue command = item.value(QStringLiteral("action")).toObject().value(QStringLiteral("command"));
            items.append({QStringLiteral("tool_use"), SessionText::toolInput(QJsonObject{{"command", command}}),
                          QStringLiteral("shell"), false, at});
        } else if (type == QLatin1String("function_call_output") || type == QLatin1String("custom_tool_call_output")) {
            const QJsonValue output = item.value(QStringLiteral("output"));
            const QString result =
                output.isString() ? output.toString() : output.toObject().value(QStringLiteral("content")).toString();
            items.append({QStringLiteral("tool_result"), SessionText::shortened(result), {}, false, at});
        }
    }
    return items;
}

} // namespace brinmoor::CodexRollouts
