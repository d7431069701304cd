#pragma once

#include <QHash>
#include <QString>

#include <list>

namespace brinmoor::relay {

class RelayConnection;

// The connections that have not shown the token (yet), oldest first, counted per
// address: the ones to let go when someone opens more than the relay will keep.
class UnauthenticatedConnections {
public:
    void add(RelayConnection* connection, const QString& address);
    // Shown the token, or gone; nothing happens for one that is not here.
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
