#include "chat/chat_sessions.h"

#include "base/diag.h"
#include "chat/chat_execution.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QtConcurrent/QtConcurrentRun>

#include <algorithm>
#include <utility>

namespace brinmoor {

namespace {

// Writes the whole file anew through a temporary file renamed over it, so a reader (or
// an agent stopped halfway) sees the old file or the new one, never a mix. The folder
// and the file are the user's alone. Runs off the event loop; returns the error, or
// nothing.
QString writeFile(const QString& path, const QByteArray& content)
{
    const QString folder = QFileInfo(path).absolutePath();
    if (!QDir().mkpath(folder))
        return QStringLiteral("cannot create the folder ") + folder;
    QFile::setPermissions(folder, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return file.errorString();
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    if (file.write(content) != content.size() || !file.commit())
        return file.errorString();
    return QString();
}

} // namespace

ChatSessions::ChatSessions(QString filePath, QObject* parent) : QObject(parent), m_filePath(std::move(filePath))
{
    m_writeDelay.setSingleShot(true);
    m_writeDelay.setInterval(kWriteDelayMilliseconds);
    connect(&m_writeDelay, &QTimer::timeout, this, &ChatSessions::writeNow);
    connect(&m_write, &QFutureWatcher<QString>::finished, this, &ChatSessions::onWritten);
    // One small file, read once while the agent starts, before any task runs.
    if (!m_filePath.isEmpty())
        read();
}

ChatSessions::~ChatSessions()
{
    writeAndWait();
}

QString ChatSessions::standardFilePath(const Environment& env, const QString& home)
{
    return agentStateFolder(env, home) + QStringLiteral("/chat-sessions.json");
}

bool ChatSessions::hasEstablishedChatSession(const QString& key) const
{
    const auto it = m_conversations.constFind(key);
    return it != m_conversations.cend() && it->claudeSessionEstablished;
}

void ChatSessions::markChatSessionEstablished(const QString& key)
{
    touch(key).claudeSessionEstablished = true;
    changed();
}

std::optional<QString> ChatSessions::codexThreadID(const QString& key) const
{
    const auto it = m_conversations.constFind(key);
    if (it == m_conversations.cend() || it->codexThreadID.isEmpty())
        return std::nullopt;
    return it->codexThreadID;
}

void ChatSessions::recordCodexThreadID(const QString& threadId, const QString& conversationId,
                                       const QString& projectPath)
{
    const std::optional<QString> key = ChatExecution::scopedConversationKey(projectPath, conversationId);
    if (!key || threadId.isEmpty())
        return;
    touch(*key).codexThreadID = threadId;
    changed();
}

ChatSessions::Conversation& ChatSessions::touch(const QString& key)
{
    if (!m_conversations.contains(key) && m_conversations.size() >= kLimit) {
        const auto oldest =
            std::min_element(m_conversations.cbegin(), m_conversations.cend(),
                             [](const Conversation& a, const Conversation& b) { return a.lastUse < b.lastUse; });
        m_conversations.erase(oldest);
    }
    Conversation& conversation = m_conversations[key];
    conversation.lastUse = ++m_uses;
    return conversation;
}

void ChatSessions::changed()
{
    m_dirty = true;
    if (!m_filePath.isEmpty() && !m_writeDelay.isActive())
        m_writeDelay.start();
}

void ChatSessions::read()
{
    QFile file(m_filePath);
    if (!file.exists())
        return;
    QString problem;
    QJsonArray conversations;
    if (!file.open(QIODevice::ReadOnly)) {
        problem = file.errorString();
    } else {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
        const QJsonValue list = document.object().value(QStringLiteral("conversations"));
        if (error.error != QJsonParseError::NoError)
            problem = error.errorString() + QStringLiteral(" at offset ") + QString::number(error.offset);
        else if (!list.isArray())
            problem = QStringLiteral("no list of conversations");
        conversations = list.toArray();
    }
    if (!problem.isEmpty()) {
        // What it held is lost; the conversations start anew, and the file is replaced.
        diag(QStringLiteral("chatSessions replaces the unreadable ") + m_filePath + QStringLiteral(": ") + problem);
        changed();
        return;
    }
    // Oldest first; beyond the limit the oldest are dropped.
    for (const QJsonValue& value : conversations) {
        const QJsonObject entry = value.toObject();
        const QString key = entry.value(QStringLiteral("key")).toString();
        if (key.isEmpty())
            continue;
        Conversation& conversation = touch(key);
        conversation.claudeSessionEstablished = entry.value(QStringLiteral("claudeSession")).toBool();
        conversation.codexThreadID = entry.value(QStringLiteral("codexThread")).toString();
    }
}

QByteArray ChatSessions::serialized() const
{
    QList<QString> keys = m_conversations.keys();
    std::sort(keys.begin(), keys.end(), [this](const QString& a, const QString& b) {
        return m_conversations.value(a).lastUse < m_conversations.value(b).lastUse;
    });
    QJsonArray conversations;
    for (const QString& key : keys) {
        const Conversation& conversation = m_conversations[key];
        QJsonObject entry{{QStringLiteral("key"), key}};
        if (conversation.claudeSessionEstablished)
            entry.insert(QStringLiteral("claudeSession"), true);
        if (!conversation.codexThreadID.isEmpty())
            entry.insert(QStringLiteral("codexThread"), conversation.codexThreadID);
        conversations.append(entry);
    }
    return QJsonDocument(QJsonObject{{QStringLiteral("conversations"), conversations}}).toJson();
}

void ChatSessions::writeNow()
{
    m_writeDelay.stop();
    // A write under way is followed by another when it ends.
    if (!m_dirty || m_filePath.isEmpty() || m_write.isRunning())
        return;
    m_dirty = false;
    m_write.setFuture(QtConcurrent::run(writeFile, m_filePath, serialized()));
}

void ChatSessions::onWritten()
{
    const QString error = m_write.result();
    if (!error.isEmpty())
        diag(QStringLiteral("chatSessions could not write ") + m_filePath + QStringLiteral(": ") + error);
    if (std::exchange(m_flushing, false))
        writeNow();
    else if (m_dirty)
        m_writeDelay.start();
}

void ChatSessions::flush()
{
    m_flushing = m_write.isRunning();
    writeNow();
}

void ChatSessions::writeAndWait()
{
    m_writeDelay.stop();
    m_write.waitForFinished();
    if (!m_dirty || m_filePath.isEmpty())
        return;
    m_dirty = false;
    const QString error = writeFile(m_filePath, serialized());
    if (!error.isEmpty())
        diag(QStringLiteral("chatSessions could not write ") + m_filePath + QStringLiteral(": ") + error);
}

} // namespace brinmoor
