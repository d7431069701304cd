#pragma once

#include <QHash>
#include <QString>

#include <list>

namespace brinmoor::relay {

class RelayConnection;

// A set of connections, oldest first, counted per address (the one they were counted
// under when added).
class ConnectionsByAddress {
public:
    void add(RelayConnection* connection, const QString& address);
    bool contains(const RelayConnection* connection) const { return m_entries.contains(connection); }
    // Nothing happens for one that is not here.
    void remove(RelayConnection* connection);

    qsizetype size() const { return qsizetype(m_order.size()); }
    int countFrom(const QString& address) const { return m_perAddress.value(address); }
    // The oldest one (from that address, when given) other than `except`, or none.
    RelayConnection* oldest(const RelayConnection* except, const QString& address = {}) const;

private:
    struct Entry {
        RelayConnection* connection;
        QString address;
    };
    std::list<Entry> m_order;
    QHash<const RelayConnection*, std::list<Entry>::iterator> m_entries;
    QHash<QString, int> m_perAddress;
};

} // namespace brinmoor::relay
