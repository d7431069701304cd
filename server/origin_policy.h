#pragma once

#include <QByteArrayView>
#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor::relay {

// "scheme://host:port" in lower case with the port always written, or none when the
// text is not an http or https origin.
std::optional<QString> normalizedOrigin(QStringView text);

// Which browser pages may use the relay: a request that carries an Origin header is let
// in only from the relay's own origin (the host and port the request was sent to, over
// https when the connection is encrypted and http otherwise) or from one of the
// configured origins.
class OriginPolicy {
public:
    explicit OriginPolicy(QStringList allowed = {});

    bool allows(QByteArrayView origin, QByteArrayView host, bool encrypted) const;

private:
    QStringList m_allowed; // normalized
};

} // namespace brinmoor::relay
