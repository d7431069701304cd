#include "connections_by_address.h"

namespace brinmoor::relay {

void ConnectionsByAddress::add(RelayConnection* connection, const QString& address)
{
    if (m_entries.contains(connection))
        return;
    m_entries.insert(connection, m_order.insert(m_order.end(), Entry{connection, address}));
    ++m_perAddress[address];
}

void ConnectionsByAddress::remove(RelayConnection* connection)
{
    const auto found = m_entries.find(connection);
    if (found == m_entries.end())
        return;
    const auto entry = *found;
    m_entries.erase(found);
    if (--m_perAddress[entry->address] == 0)
        m_perAddress.remove(entry->address);
    m_order.erase(entry);
}

RelayConnection* ConnectionsByAddress::oldest(const RelayConnection* except, const QString& address) const
{
    for (const Entry& entry : m_order) {
        if (entry.connection != except && (address.isEmpty() || entry.address == address))
            return entry.connection;
    }
    return nullptr;
}

} // namespace brinmoor::relay
