#include "sessions/claude_transcripts.h"

#include "base/platform.h"
#include "sessions/claude_session_store.h"
#include "sessions/session_text.h"
#include "sessions/transcript_file.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>

namespace brinmoor::ClaudeTranscripts {

namespace {

constexpr qint64 kEndBytes = 64 * 1024;

QJsonObject parsed(const QByteArray& line)
{
    return QJsonDocument::fromJson(line).object();
}

// What the user typed in a "user" line; empty for a tool's result, claude's own notes
// and the output of its commands.
QString promptOf(const QJsonObject& line)
{
    if (line.value(QStringLiteral("type")).toString() != QLatin1String("user") ||
        line.value(QStringLiteral("isMeta")).toBool() || line.value(QStringLiteral("isSidechain")).toBool())
        return {};
    const QJsonValue content = line.value(QStringLiteral("message")).toObject().value(QStringLiteral("content"));
    QString text;
    if (content.isString()) {
        text = content.toString();
    } else {
        for (const QJsonValue& part : content.toArray()) {
            const QJsonObject block = part.toObject();
            const QString type = block.value(QStringLiteral("type")).toString();
            if (type == QLatin1String("tool_result"))
                return {};
            if (type == QLatin1String("text"))
                text += block.value(QStringLiteral("text")).toString();
        }
    }
    for (const char* note : {"<command-", "<local-command-", "Caveat: "}) {
        if (text.startsWith(QLatin1String(note)))
            return {};
    }
    return text;
}

// The number of the user's newest prompt in the session, as claude counts them.
std::optional<int> turnIndex(const QJsonObject& line)
{
    const QJsonValue index = line.value(QStringLiteral("turnPosition")).toObject().value(QStringLiteral("turnIndex"));
    if (!index.isDouble())
        return std::nullopt;
    return index.toInt();
}

struct Transcript {
    QString path;
    QString id;
    TranscriptFile::Stat stat;
};

DeskSession summary(const Transcript& file)
{
    DeskSession session;
    session.tool = QStringLiteral("claude");
    session.id = file.id;
    session.path = file.path;
    session.updatedAt = QDateTime::fromMSecsSinceEpoch(file.stat.modifiedMs, Qt::UTC);
    const bool whole = file.stat.size <= 2 * kEndBytes;
    const QList<QByteArray> head =
        whole ? TranscriptFile::allLines(session.path) : TranscriptFile::headLines(session.path, kEndBytes);
    int prompts = 0;
    for (const QByteArray& text : head) {
        if (!text.contains("\"user\""))
            continue;
        const QJsonObject line = parsed(text);
        const QString prompt = promptOf(line);
        if (prompt.isEmpty())
            continue;
        ++prompts;
        if (session.cwd.isEmpty()) {
            const SessionText::Prompt typed = SessionText::userPrompt(prompt);
            session.title = SessionText::title(typed.text);
            session.startedByPhone = typed.fromPhone;
            session.cwd = line.value(QStringLiteral("cwd")).toString();
        }
    }
    session.messages = prompts;
    const QList<QByteArray> tail = whole ? head : TranscriptFile::tailLines(session.path, kEndBytes);
    for (auto line = tail.crbegin(); line != tail.crend(); ++line) {
        if (!line->contains("\"turnPosition\""))
            continue;
        if (const std::optional<int> index = turnIndex(parsed(*line))) {
            session.messages = qMax(session.messages, *index);
            break;
        }
    }
    return session;
}

QString resultText(const QJsonValue& content)
{
    if (content.isString())
        return content.toString();
    QStringList texts;
    for (const QJsonValue& part : content.toArray()) {
        if (part.toObject().value(QStringLiteral("type")).toString() == QLatin1String("text"))
            texts.append(part.toObject().value(QStringLiteral("text")).toString());
    }
    return texts.join(QLatin1Char('\n'));
}

// The lines on the branch that ends at the newest message: a rewound conversation keeps
// its abandoned turns in the file.
QSet<QString> currentBranch(const QList<QJsonObject>& lines)
{
    QHash<QString, QString> parents;
    QString leaf;
    for (const QJsonObject& line : lines) {
        const QString uuid = line.value(QStringLiteral("uuid")).toString();
        if (uuid.isEmpty() || line.value(QStringLiteral("isSidechain")).toBool())
            continue;
        QString parent = line.value(QStringLiteral("parentUuid")).toString();
        if (parent.isEmpty())
            parent = line.value(QStringLiteral("logicalParentUuid")).toString();
        parents.insert(uuid, parent);
        const QString type = line.value(QStringLiteral("type")).toString();
        if (type == QLatin1String("user") || type == QLatin1String("assistant"))
            leaf = uuid;
    }
    QSet<QString> branch;
    for (QString at = leaf; !at.isEmpty() && !branch.contains(at); at = parents.value(at))
        branch.insert(at);
    return branch;
}

} // namespace

QList<DeskSession> list(const QString& configDirectory, const QString& workingDir, qsizetype limit)
{
    QStringList folders{workingDir};
    const QString canonical = QFileInfo(workingDir).canonicalFilePath();
    if (!canonical.isEmpty() && canonical != workingDir)
        folders.append(canonical);
    QList<Transcript> files;
    for (const QString& folder : folders) {
        const QDir store(configDirectory + QStringLiteral("/projects/") +
                         ClaudeSessionStore::projectFolderName(folder));
        for (const QString& name : store.entryList({QStringLiteral("*.jsonl")}, QDir::Files)) {
            Transcript file{store.filePath(name), name.chopped(6), {}};
            if (ClaudeSessionStore::isSessionId(file.id) && TranscriptFile::stat(file.path, &file.stat))
                files.append(file);
        }
    }
    std::sort(files.begin(), files.end(),
              [](const Transcript& a, const Transcript& b) { return a.stat.modifiedMs > b.stat.modifiedMs; });
    QList<DeskSession> sessions;
    for (const Transcript& file : files) {
        if (sessions.size() >= limit)
            break;
        DeskSession session = summary(file);
        if (session.cwd.isEmpty())
            session.cwd = workingDir;
        sessions.append(session);
    }
    return sessions;
}

DeskSession find(const QString& configDirectory, const QString& id)
{
    if (!ClaudeSessionStore::isSessionId(id))
        return {};
    const QDir projects(configDirectory + QStringLiteral("/projects"));
    for (const QString& folder : projects.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        Transcript file{projects.filePath(folder + QLatin1Char('/') + id + QStringLiteral(".jsonl")), id, {}};
        if (TranscriptFile::stat(file.path, &file.stat))
            return summary(file);
    }
    return {};
}

QHash<QString, QString> liveSessions(const QString& configDirectory)
{
    QHash<QString, QString> live;
    const QDir folder(configDirectory + QStringLiteral("/sessions"));
    for (const QString& name : folder.entryList({QStringLiteral("*.json")}, QDir::Files)) {
        QFile entry(folder.filePath(name));
        if (!entry.open(QIODevice::ReadOnly) || entry.size() > kEndBytes)
            continue;
        const QJsonObject record = QJsonDocument::fromJson(entry.readAll()).object();
        const qint64 pid = record.value(QStringLiteral("pid")).toInteger();
        const QString sessionId = record.value(QStringLiteral("sessionId")).toString();
        if (pid <= 0 || sessionId.isEmpty() ||
            !Platform::processRuns(pid, record.value(QStringLiteral("procStart")).toString()))
            continue;
        const QString status = record.value(QStringLiteral("status")).toString();
        live.insert(sessionId, status == QLatin1String("idle") || status == QLatin1String("waiting")
                                   ? status
                                   : QStringLiteral("busy"));
    }
    return live;
}

namespace {

// The turns of the lines, those of `branch` alone unless it is absent.
QList<SessionItem> itemsOf(const QList<QJsonObject>& lines, const std::optional<QSet<QString>>& branch)
{
    QList<SessionItem> items;
    QString lastMessageId;
    for (const QJsonObject& line : lines) {
        if (branch && !branch->contains(line.value(QStringLiteral("uuid")).toString()))
            continue;
        const QString type = line.value(QStringLiteral("type")).toString();
        const QString at = line.value(QStringLiteral("timestamp")).toString();
        const QJsonObject message = line.value(QStringLiteral("message")).toObject();
        if (type == QLatin1String("user")) {
            lastMessageId.clear();
            const QString prompt = promptOf(line);
            if (!prompt.isEmpty()) {
                items.append({QStringLiteral("user"), SessionText::userPrompt(prompt).text, {}, false, at});
                continue;
            }
            for (const QJsonValue& part : message.value(QStringLiteral("content")).toArray()) {
                const QJsonObject block = part.toObject();
                if (block.value(QStringLiteral("type")).toString() != QLatin1String("tool_result"))
                    continue;
                items.append({QStringLiteral("tool_result"),
                              SessionText::shortened(resultText(block.value(QStringLiteral("content")))),
                              {},
                              block.value(QStringLiteral("is_error")).toBool(),
                              at});
            }
        } else if (type == QLatin1String("assistant")) {
            const QString messageId = message.value(QStringLiteral("id")).toString();
            for (const QJsonValue& part : message.value(QStringLiteral("content")).toArray()) {
                const QJsonObject block = part.toObject();
                const QString kind = block.value(QStringLiteral("type")).toString();
                if (kind == QLatin1String("text")) {
                    const QString text = block.value(QStringLiteral("text")).toString();
                    // claude writes the blocks of one answer on lines of their own.
                    if (!items.isEmpty() && items.last().kind == QLatin1String("assistant") && !messageId.isEmpty() &&
                        messageId == lastMessageId)
                        items.last().text += QStringLiteral("\n\n") + text;
                    else
                        items.append({QStringLiteral("assistant"), text, {}, false, at});
                } else if (kind == QLatin1String("tool_use")) {
                    items.append({QStringLiteral("tool_use"),
                                  SessionText::toolInput(block.value(QStringLiteral("input"))),
                                  block.value(QStringLiteral("name")).toString(), false, at});
                }
            }
            lastMessageId = messageId;
        }
    }
    return items;
}

} // namespace

QList<SessionItem> items(const QString& path)
{
    QList<QJsonObject> lines;
    for (const QByteArray& text : TranscriptFile::allLines(path))
        lines.append(parsed(text));
    return itemsOf(lines, currentBranch(lines));
}

QList<SessionItem> itemsOfLines(const QList<QByteArray>& lines)
{
    QList<QJsonObject> objects;
    for (const QByteArray& text : lines)
        objects.append(parsed(text));
    return itemsOf(objects, std::nullopt);
}

} // namespace brinmoor::ClaudeTranscripts
