#include "agent_reads.h"

#include "protocol/message_types.h"
#include "relay_messages.h"

namespace brinmoor::relay {

bool AgentReads::isAnswer(const QJsonObject& message)
{
    const QString type = message.value(QStringLiteral("type")).toString();
    return type == MessageTypes::TaskOutput || type == MessageTypes::TasksKept ||
           type == MessageTypes::SessionsListed || type == MessageTypes::SessionsHistory;
}

QString AgentReads::add(RelayConnection* client, const QString& agentId, const QJsonValue& requestId)
{
    const QString readId = QStringLiteral("r") + QString::number(++m_next);
    m_reads.insert(readId, {client, agentId, requestId});
    ++m_perClient[client];
    return readId;
}

std::optional<AgentReads::Reader> AgentReads::take(const QString& agentId, const QString& readId)
{
    const auto found = m_reads.find(readId);
    if (found == m_reads.end() || found->agentId != agentId)
        return std::nullopt;
    const Reader reader = *found;
    m_reads.erase(found);
    if (--m_perClient[reader.client] <= 0)
        m_perClient.remove(reader.client);
    return reader;
}

void AgentReads::removeClient(const RelayConnection* client)
{
    if (!m_perClient.remove(client))
        return;
    m_reads.removeIf([client](const QHash<QString, Reader>::iterator& read) { return read->client == client; });
}

QByteArray AgentReads::answer(QJsonObject message, const Reader& reader)
{
    message.remove(QStringLiteral("readId"));
    message.remove(QStringLiteral("seq"));
    message.insert(QStringLiteral("agentId"), reader.agentId);
    if (!reader.requestId.isUndefined() && !reader.requestId.isNull())
        message.insert(QStringLiteral("requestId"), reader.requestId);
    return RelayMessages::json(message);
}

} // namespace brinmoor::relay
