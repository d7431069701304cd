#include "served_hosts.h"

#include <QHostInfo>
#include <QNetworkInterface>

namespace brinmoor::relay {

namespace {

// The machine's addresses change (a new network, a VPN): a Host naming an address not
// known yet reads them again, at most this often.
constexpr qint64 kMachineAddressesRefreshMs = 5'000;

bool isNameCharacter(QChar c)
{
    return (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') || c == u'-' || c == u'_';
}

// A host name in lower case without its final dot, or none when it is not one: labels
// of letters, digits, "-" and "_", none empty, longer than 63 or starting or ending
// with "-"; 253 characters at most.
std::optional<QString> hostName(QStringView text)
{
    QString name = text.toString().toLower();
    if (name.endsWith(u'.'))
        name.chop(1);
    if (name.isEmpty() || name.size() > 253)
        return std::nullopt;
    for (const QStringView label : QStringView(name).split(u'.')) {
        if (label.isEmpty() || label.size() > 63 || label.front() == u'-' || label.back() == u'-')
            return std::nullopt;
        if (!std::all_of(label.begin(), label.end(), isNameCharacter))
            return std::nullopt;
    }
    return name;
}

// An IPv4 address written as four decimal numbers, or an IPv6 address; none for
// anything else (QHostAddress also takes "127.1" and the like, which no browser sends).
std::optional<QHostAddress> ipAddress(QStringView text, bool allowV4)
{
    QHostAddress address;
    if (!address.setAddress(text.toString()))
        return std::nullopt;
    if (address.protocol() == QAbstractSocket::IPv4Protocol) {
        if (!allowV4 || address.toString() != text)
            return std::nullopt;
    }
    address.setScopeId(QString());
    return address;
}

bool sameAddress(const QHostAddress& a, const QHostAddress& b)
{
    return a.isEqual(b, QHostAddress::TolerantConversion);
}

// The host of a Host header without its port: an address or a name; none when the value
// is neither, or its port is not a port.
struct Named {
    std::optional<QHostAddress> address;
    QString name;
};
std::optional<Named> parseHost(QByteArrayView value)
{
    const QString text = QString::fromLatin1(value.trimmed());
    QStringView host = text;
    QStringView port;
    bool bracketed = false;
    if (text.startsWith(u'[')) {
        const qsizetype close = text.indexOf(u']');
        if (close < 0)
            return std::nullopt;
        host = QStringView(text).sliced(1, close - 1);
        const QStringView rest = QStringView(text).sliced(close + 1);
        if (!rest.isEmpty()) {
            if (rest.front() != u':')
                return std::nullopt;
            port = rest.sliced(1);
            if (port.isEmpty())
                return std::nullopt;
        }
        bracketed = true;
    } else if (const qsizetype colon = text.indexOf(u':'); colon >= 0) {
        if (text.lastIndexOf(u':') != colon)
            return std::nullopt;
        host = QStringView(text).first(colon);
        port = QStringView(text).sliced(colon + 1);
        if (port.isEmpty())
            return std::nullopt;
    }
    if (!port.isEmpty()) {
        bool ok = false;
        const int number = port.toInt(&ok);
        if (!ok || port.size() > 5 || number < 0 || number > 65535 ||
            !std::all_of(port.begin(), port.end(), [](QChar c) { return c.isDigit(); }))
            return std::nullopt;
    }
    if (bracketed) {
        const std::optional<QHostAddress> address = ipAddress(host, false);
        if (!address)
            return std::nullopt;
        return Named{address, {}};
    }
    if (const std::optional<QHostAddress> address = ipAddress(host, true))
        return Named{address, {}};
    const std::optional<QString> name = hostName(host);
    if (!name)
        return std::nullopt;
    return Named{std::nullopt, *name};
}

} // namespace

std::optional<QString> ServedHosts::normalizedEntry(QStringView entry)
{
    QStringView text = entry.trimmed();
    if (text.size() > 2 && text.front() == u'[' && text.back() == u']') {
        const std::optional<QHostAddress> address = ipAddress(text.sliced(1, text.size() - 2), false);
        return address ? std::optional<QString>(address->toString()) : std::nullopt;
    }
    if (const std::optional<QHostAddress> address = ipAddress(text, true))
        return address->toString();
    return hostName(text);
}

ServedHosts::ServedHosts(const QStringList& entries)
{
    m_names.insert(QStringLiteral("localhost"));
    // The machine's own name, and the one Bonjour gives it on the LAN.
    if (const std::optional<QString> own = hostName(QHostInfo::localHostName())) {
        m_names.insert(*own);
        m_names.insert(own->endsWith(QLatin1String(".local")) ? own->chopped(6) : *own + QStringLiteral(".local"));
    }
    for (const QString& entry : entries) {
        if (const std::optional<QHostAddress> address = ipAddress(entry, true))
            m_addresses.append(*address);
        else
            m_names.insert(entry);
    }
}

bool ServedHosts::serves(QByteArrayView host, const QHostAddress& local, qint64 nowMs)
{
    const std::optional<Named> named = parseHost(host);
    if (!named)
        return false;
    if (!named->address)
        return m_names.contains(named->name);
    const QHostAddress& address = *named->address;
    if (address.isLoopback())
        return true;
    QHostAddress reached = local;
    reached.setScopeId(QString());
    if (sameAddress(address, reached))
        return true;
    for (const QHostAddress& listed : std::as_const(m_addresses)) {
        if (sameAddress(address, listed))
            return true;
    }
    return isOwnAddress(address, nowMs);
}

bool ServedHosts::isOwnAddress(const QHostAddress& address, qint64 nowMs)
{
    const auto known = [&] {
        return std::any_of(m_machineAddresses.cbegin(), m_machineAddresses.cend(),
                           [&](const QHostAddress& own) { return sameAddress(address, own); });
    };
    if (m_machineAddressesRead && (known() || nowMs - m_machineAddressesReadAt < kMachineAddressesRefreshMs))
        return known();
    m_machineAddresses.clear();
    for (QHostAddress own : QNetworkInterface::allAddresses()) {
        own.setScopeId(QString());
        m_machineAddresses.append(own);
    }
    m_machineAddressesRead = true;
    m_machineAddressesReadAt = nowMs;
    return known();
}

} // namespace brinmoor::relay
