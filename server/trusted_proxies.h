#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QPair>
#include <QString>

#include <optional>

namespace brinmoor::relay {

// An address as the relay logs and counts it: an IPv4 address reached over IPv6 is
// written as IPv4.
QString addressText(const QHostAddress& address);

// The reverse proxies whose X-Forwarded-For the relay believes (BRINMOOR_TRUSTED_PROXIES:
// addresses and subnets, comma-separated). A request from one of them is counted, capped
// and logged under the client the proxy names instead of under the proxy.
class TrustedProxies {
public:
    // None when an entry is neither an address nor a subnet; `bad` then holds it.
    static std::optional<TrustedProxies> parse(const QString& text, QString* bad = nullptr);

    bool isEmpty() const { return m_subnets.isEmpty(); }
    bool contains(const QHostAddress& address) const;
    // The client behind `peer`: X-Forwarded-For read from its end, past every trusted
    // proxy, to the first address that is not one. An entry that is no address ends the
    // walk at the hop that wrote it. Only a trusted peer is believed at all.
    QString clientAddress(const QHostAddress& peer, const QList<QByteArray>& forwardedFor) const;

private:
    QList<QPair<QHostAddress, int>> m_subnets;
};

} // namespace brinmoor::relay
