#include "agent/server_certificate.h"

#include <QFile>

namespace brinmoor::ServerCertificate {

std::variant<QList<QSslCertificate>, QString> load(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read ") + path + QStringLiteral(": ") + file.errorString();
    const QList<QSslCertificate> certificates = QSslCertificate::fromData(file.readAll(), QSsl::Pem);
    if (certificates.isEmpty() || certificates.first().isNull())
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
