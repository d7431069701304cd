#include "origin_policy.h"

#include <QUrl>

namespace brinmoor::relay {

std::optional<QString> normalizedOrigin(QStringView text)
{
    const QUrl url(text.toString(), QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || (scheme != QLatin1String("http") && scheme != QLatin1String("https")) ||
        url.host().isEmpty() || !url.userInfo().isEmpty() ||
        (!url.path().isEmpty() && url.path() != QLatin1String("/")) || url.hasQuery() || url.hasFragment())
        return std::nullopt;
    const int port = url.port(scheme == QLatin1String("https") ? 443 : 80);
    const QString host = url.host(QUrl::FullyEncoded).toLower();
    return scheme + QStringLiteral("://") + (host.contains(QLatin1Char(':')) ? u'[' + host + u']' : host) +
           QLatin1Char(':') + QString::number(port);
}

OriginPolicy::OriginPolicy(QStringList allowed) : m_allowed(std::move(allowed)) {}

bool OriginPolicy::allows(QByteArrayView origin, QByteArrayView host, bool encrypted) const
{
    const std::optional<QString> presented = normalizedOrigin(QString::fromUtf8(origin));
    if (!presented)
        return false;
    if (m_allowed.contains(*presented))
        return true;
    const QString ownText =
        (encrypted ? QStringLiteral("https://") : QStringLiteral("http://")) + QString::fromUtf8(host);
    const std::optional<QString> own = normalizedOrigin(ownText);
    return own && *own == *presented;
}

} // namespace brinmoor::relay
