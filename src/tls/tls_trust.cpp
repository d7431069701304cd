#include "tls/tls_trust.h"

#include <QFile>

namespace brinmoor::TlsTrust {

std::variant<QByteArray, QString> readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return file.errorString();
    QByteArray text = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return file.errorString();
    return text;
}

QList<QSslCertificate> certificatesIn(const QByteArray& pem)
{
    QList<QSslCertificate> certificates = QSslCertificate::fromData(pem, QSsl::Pem);
    certificates.removeIf([](const QSslCertificate& certificate) { return certificate.isNull(); });
    return certificates;
}

QSslConfiguration ServerTrust::configure(QSslConfiguration base) const
{
    if (isPinned())
        base.setCaCertificates({});
    else if (!authorities.isEmpty())
        base.addCaCertificates(authorities);
    return base;
}

bool ServerTrust::overrulesErrors(const QSslCertificate& peer) const
{
    return isPinned() && peer == pinned;
}

} // namespace brinmoor::TlsTrust
