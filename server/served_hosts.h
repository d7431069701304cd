#pragma once

#include <QByteArrayView>
#include <QHostAddress>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor::relay {

// The names the relay answers to. A browser sends the name it resolved as Host, so a
// page of another site whose name was pointed at this machine (DNS rebinding) carries
// that name: a request whose Host is not one of these is refused before anything else.
// Served are the loopback addresses, the machine's own addresses (and the one the
// connection reached), "localhost", the machine's host name with and without ".local",
// and the names and addresses the relay is given (BRINMOOR_ALLOWED_HOSTS, the host of
// BRINMOOR_PUBLIC_URL). A port is allowed after any of them; case does not matter, nor
// one final dot.
class ServedHosts {
public:
    // An entry of BRINMOOR_ALLOWED_HOSTS as it is compared: a host name in lower case
    // without its final dot, or an IP address (IPv6 with or without brackets) in its
    // usual spelling; none for anything else (a port, a scheme, a path, a wildcard).
    static std::optional<QString> normalizedEntry(QStringView entry);

    // `entries` normalized as above.
    explicit ServedHosts(const QStringList& entries = {});

    // Whether the value of a Host header names the relay; `local` is the address the
    // connection reached. The machine's addresses are looked up again, at most every
    // few seconds, when a request names one not known yet.
    bool serves(QByteArrayView host, const QHostAddress& local, qint64 nowMs);

private:
    bool isOwnAddress(const QHostAddress& address, qint64 nowMs);

    QSet<QString> m_names;
    QList<QHostAddress> m_addresses;
    QList<QHostAddress> m_machineAddresses;
    qint64 m_machineAddressesReadAt = 0;
    bool m_machineAddressesRead = false;
};

} // namespace brinmoor::relay
