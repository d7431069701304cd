// Reads a client asks of an agent: what it keeps of its tasks ("task.output.read",
// "tasks.list") and the coding assistants' sessions it finds ("sessions.list",
// "sessions.read"). Each goes to the agent with the relay's "readId"; the answer goes to
// the client that asked alone, and is neither relayed to the others nor kept.
#include "relay_server.h"

namespace brinmoor::relay {

void RelayServer::run(RelayConnection& client, const AgentRead& command)
{
    const QJsonValue& requestId = command.requestId;
    const QString& agentId = command.agentId;
    const Agent* agent = connectedAgent(client, agentId, requestId);
    if (!agent)
        return;
    if (!m_reads.canRead(&client)) {
        replyError(client, QStringLiteral("TOO_MANY_READS"),
                   QStringLiteral("a client waits for at most %1 reads at once").arg(AgentReads::kMaxPerClient),
                   requestId);
        return;
    }
    QJsonObject payload = command.payload;
    // The id is made only once the agent takes the read: one it does not take is not waited for.
    const QByteArray probe = RelayMessages::agentCommand(command.type, command.taskId, payload);
    if (!agentTakes(client, *agent, probe.size() + 32, requestId))
        return;
    payload.insert(QStringLiteral("readId"), m_reads.add(&client, agentId, requestId));
    agent->connection->sendText(RelayMessages::agentCommand(command.type, command.taskId, payload));
}

bool RelayServer::answerRead(const QString& agentId, const QJsonObject& message)
{
    if (!AgentReads::isAnswer(message))
        return false;
    // An answer whose reader is gone (or that answers nothing asked) goes nowhere.
    const std::optional<AgentReads::Reader> reader =
        m_reads.take(agentId, message.value(QStringLiteral("readId")).toString());
    if (reader)
        reader->client->sendText(AgentReads::answer(message, *reader));
    return true;
}

} // namespace brinmoor::relay
