#pragma once

#include "config/machine.h"

#include <QByteArray>
#include <QFutureWatcher>
#include <QHash>
#include <QObject>
#include <QString>
#include <QTimer>

#include <optional>

namespace brinmoor {

// Per-conversation chat bookkeeping: which Claude sessions the agent established and
// which Codex thread each conversation continues, by scoped conversation key. With a
// file it outlives the agent: read when it is made, written shortly after each change
// (atomically, off the event loop, owner-only), and written once more when it goes.
// At most `kLimit` conversations are kept; the one used longest ago goes first. Used
// on the event loop only, which serialises all access.
class ChatSessions : public QObject {
    Q_OBJECT

public:
    static constexpr qsizetype kLimit = 1000;
    static constexpr int kWriteDelayMilliseconds = 200;

    // Without a file the bookkeeping lives as long as the object.
    explicit ChatSessions(QString filePath = QString(), QObject* parent = nullptr);
    ~ChatSessions() override;

    // Where the agent keeps it: $XDG_STATE_HOME (default ~/.local/state)/brinmoor on
    // Linux, the application support folder on macOS.
    static QString standardFilePath(const Environment& env, const QString& home);

    const QString& filePath() const { return m_filePath; }

    bool hasEstablishedChatSession(const QString& key) const;
    void markChatSessionEstablished(const QString& key);
    std::optional<QString> codexThreadID(const QString& key) const;
    // Stores the thread id under the conversation's scoped key.
    void recordCodexThreadID(const QString& threadId, const QString& conversationId, const QString& projectPath);

    // Starts writing what changed at once, off the event loop, right after a write under
    // way (the agent stopping). Going away, the object writes what is left and waits.
    void flush();

private:
    struct Conversation {
        bool claudeSessionEstablished = false;
        QString codexThreadID;
        quint64 lastUse = 0;
    };

    Conversation& touch(const QString& key);
    void changed();
    void read();
    QByteArray serialized() const;
    void writeNow();
    void onWritten();
    // The last write, on the calling thread once the one under way has ended.
    void writeAndWait();

    const QString m_filePath;
    QHash<QString, Conversation> m_conversations;
    quint64 m_uses = 0;
    QTimer m_writeDelay;
    QFutureWatcher<QString> m_write; // the error of the write under way, empty when it worked
    bool m_dirty = false;
    bool m_flushing = false; // the next write follows the one under way at once
};

} // namespace brinmoor
