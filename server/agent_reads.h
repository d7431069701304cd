#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <optional>

namespace brinmoor::relay {

class RelayConnection;

// Reads a client asks of an agent: what it keeps of its tasks ("task.output.read",
// "tasks.list") and the coding assistants' sessions it finds ("sessions.list",
// "sessions.read"). Each goes to the agent with an id of the relay's ("readId"), and the
// agent's answer goes to the client that asked, alone, with the client's "requestId".
// Bounded: a client waits for at most so many answers at once.
class AgentReads {
public:
    static constexpr int kMaxPerClient = 16;

    struct Reader {
        RelayConnection* client = nullptr;
        QString agentId;
        QJsonValue requestId;
    };

    // Whether the message is an agent's answer to a read ("task.output", "tasks.kept",
    // "sessions.listed", "sessions.history").
    static bool isAnswer(const QJsonObject& message);

    // Whether the client may ask one more.
    bool canRead(const RelayConnection* client) const { return m_perClient.value(client) < kMaxPerClient; }
    // A read the client asks of an agent: the id it goes with.
    QString add(RelayConnection* client, const QString& agentId, const QJsonValue& requestId);
    // The agent answered read `readId`: who asked, if it is still waiting.
    std::optional<Reader> take(const QString& agentId, const QString& readId);
    // The client is gone: its reads are not answered.
    void removeClient(const RelayConnection* client);

    // The answer as the client gets it: "agentId" and its "requestId" in place of "readId".
    static QByteArray answer(QJsonObject message, const Reader& reader);

private:
    QHash<QString, Reader> m_reads;
    QHash<const RelayConnection*, int> m_perClient;
    quint64 m_next = 0;
};

} // namespace brinmoor::relay
