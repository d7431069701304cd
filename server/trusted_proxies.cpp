#include "trusted_proxies.h"

namespace brinmoor::relay {

namespace {

std::optional<QHostAddress> parseAddress(QByteArrayView text)
{
    QByteArrayView entry = text.trimmed();
    if (entry.size() > 2 && entry.front() == '[' && entry.back() == ']')
        entry = entry.sliced(1, entry.size() - 2);
    QHostAddress address;
    if (entry.isEmpty() || !address.setAddress(QString::fromLatin1(entry)))
        return std::nullopt;
    return address;
}

} // namespace

QString addressText(const QHostAddress& address)
{
    bool isV4 = false;
    const quint32 v4 = address.toIPv4Address(&isV4);
    return isV4 ? QHostAddress(v4).toString() : address.toString();
}

std::optional<TrustedProxies> TrustedProxies::parse(const QString& text, QString* bad)
{
    TrustedProxies proxies;
    for (const QString& part : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString entry = part.trimmed();
        QPair<QHostAddress, int> subnet = QHostAddress::parseSubnet(entry);
        if (!entry.contains(QLatin1Char('/'))) {
            const std::optional<QHostAddress> address = parseAddress(entry.toLatin1());
            subnet = address ? qMakePair(*address, address->protocol() == QAbstractSocket::IPv4Protocol ? 32 : 128)
                             : qMakePair(QHostAddress(), -1);
        }
        if (subnet.second < 0) {
            if (bad)
                *bad = entry;
            return std::nullopt;
        }
        proxies.m_subnets.append(subnet);
    }
    return proxies;
}

bool TrustedProxies::contains(const QHostAddress& address) const
{
    bool isV4 = false;
    const quint32 v4 = address.toIPv4Address(&isV4);
    const QHostAddress plain = isV4 ? QHostAddress(v4) : address;
    for (const auto& subnet : m_subnets) {
        if (plain.isInSubnet(subnet))
            return true;
    }
    return false;
}

QString TrustedProxies::clientAddress(const QHostAddress& peer, const QList<QByteArray>& forwardedFor) const
{
    QHostAddress client = peer;
    if (!contains(peer))
        return addressText(client);
    QList<QByteArray> hops;
    for (const QByteArray& header : forwardedFor)
        hops += header.split(',');
    for (auto hop = hops.crbegin(); hop != hops.crend() && contains(client); ++hop) {
        const std::optional<QHostAddress> address = parseAddress(*hop);
        if (!address)
            break;
        client = *address;
    }
    return addressText(client);
}

} // namespace brinmoor::relay
