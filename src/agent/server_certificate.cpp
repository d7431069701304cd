#include "agent/server_certificate.h"

#include "tls/tls_trust.h"

namespace brinmoor::ServerCertificate {

std::variant<QList<QSslCertificate>, QString> load(const QString& path)
{
    const auto text = TlsTrust::readFile(path);
    if (const QString* reason = std::get_if<QString>(&text))
        return QStringLiteral("cannot read ") + path + QStringLiteral(": ") + *reason;
    const QList<QSslCertificate> certificates = TlsTrust::certificatesIn(std::get<QByteArray>(text));
    if (certificates.isEmpty())
        return QStringLiteral("no PEM certificate in ") + path;
    return certificates;
}

QString notPinned(const QString& path)
{
    return QStringLiteral("the server's certificate is not the one in ") + path;
}

QString refused(const QList<QSslError>& errors)
{
    QStringList reasons;
    for (const QSslError& error : errors) {
        if (!reasons.contains(error.errorString()))
            reasons.append(error.errorString());
    }
    return QStringLiteral("the server's certificate was refused: ") + reasons.join(QStringLiteral("; "));
}

} // namespace brinmoor::ServerCertificate
