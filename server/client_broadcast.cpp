#include "client_broadcast.h"

#include "relay_connection.h"

#include <algorithm>

namespace brinmoor::relay {

void ClientBroadcast::add(RelayConnection* client)
{
    m_clients.push_back(client);
}

void ClientBroadcast::remove(RelayConnection* client)
{
    for (RelayConnection*& entry : m_clients) {
        if (entry == client)
            entry = nullptr;
    }
    if (m_sending == 0)
        std::erase(m_clients, nullptr);
}

std::vector<RelayConnection*> ClientBroadcast::clients() const
{
    std::vector<RelayConnection*> clients;
    std::copy_if(m_clients.begin(), m_clients.end(), std::back_inserter(clients),
                 [](const RelayConnection* client) { return client != nullptr; });
    return clients;
}

void ClientBroadcast::send(const QByteArray& frame, const Filter& wants)
{
    ++m_sending;
    qint64 shared = -1;
    for (size_t i = 0; i < m_clients.size(); ++i) {
        RelayConnection* client = m_clients[i];
        if (client && (!wants || wants(*client)))
            client->sendShared(m_sharedFrames, frame, shared);
    }
    if (--m_sending == 0)
        std::erase(m_clients, nullptr);
    if (shared >= 0)
        releaseSharedFrames();
}

void ClientBroadcast::sendText(const QByteArray& text)
{
    if (!m_clients.empty())
        send(ws::frame(ws::Text, text));
}

void ClientBroadcast::releaseSharedFrames()
{
    qint64 oldest = m_sharedFrames.end();
    for (const RelayConnection* client : m_clients) {
        if (!client)
            continue;
        if (const std::optional<qint64> waiting = client->oldestShared())
            oldest = std::min(oldest, *waiting);
    }
    m_sharedFrames.releaseBefore(oldest);
}

} // namespace brinmoor::relay
