#include "test_certificate_authority.h"

#include <QCryptographicHash>
#include <QFile>
#include <QProcess>
#include <QSslCertificate>
#include <QSslKey>

namespace brinmoor::relay {

namespace {

// Extensions as browsers expect them of a root, an intermediate and a server certificate.
constexpr char kConfiguration[] = "[req]\n"
                                  "distinguished_name = dn\n"
                                  "prompt = no\n"
                                  "[dn]\n"
                                  "CN = unused\n"
                                  "[root]\n"
                                  "basicConstraints = critical,CA:TRUE\n"
                                  "keyUsage = critical,keyCertSign,cRLSign\n"
                                  "subjectKeyIdentifier = hash\n"
                                  "[intermediate]\n"
                                  "basicConstraints = critical,CA:TRUE,pathlen:0\n"
                                  "keyUsage = critical,keyCertSign,cRLSign\n"
                                  "subjectKeyIdentifier = hash\n"
                                  "authorityKeyIdentifier = keyid\n"
                                  "[leaf]\n"
                                  "basicConstraints = critical,CA:FALSE\n"
                                  "keyUsage = critical,digitalSignature\n"
                                  "extendedKeyUsage = serverAuth\n"
                                  "subjectKeyIdentifier = hash\n"
                                  "authorityKeyIdentifier = keyid\n";

QStringList newKey(const QString& keyPath)
{
    return {QStringLiteral("-newkey"),
            QStringLiteral("ec"),
            QStringLiteral("-pkeyopt"),
            QStringLiteral("ec_paramgen_curve:P-256"),
            QStringLiteral("-nodes"),
            QStringLiteral("-keyout"),
            keyPath,
            QStringLiteral("-days"),
            QStringLiteral("30")};
}

} // namespace

TestCertificateAuthority::TestCertificateAuthority(const QString& name)
{
    QFile configuration(m_dir.filePath(QStringLiteral("openssl.cnf")));
    if (!m_dir.isValid() || !configuration.open(QIODevice::WriteOnly) || configuration.write(kConfiguration) < 0) {
        m_error = QStringLiteral("cannot write the openssl configuration");
        return;
    }
    configuration.close();
    run(QStringList{QStringLiteral("-extensions"), QStringLiteral("root"), QStringLiteral("-subj"),
                    QStringLiteral("/CN=") + name, QStringLiteral("-out"), rootCertificate()} +
        newKey(m_dir.filePath(QStringLiteral("root.key"))));
}

bool TestCertificateAuthority::run(const QStringList& arguments)
{
    if (!m_error.isEmpty())
        return false;
    QProcess openssl;
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"),
                  QStringList{QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-config"),
                              m_dir.filePath(QStringLiteral("openssl.cnf"))} +
                      arguments);
    if (!openssl.waitForFinished(30000) || openssl.exitStatus() != QProcess::NormalExit || openssl.exitCode() != 0) {
        m_error = QStringLiteral("openssl failed: ") + QString::fromUtf8(openssl.readAll()) + openssl.errorString();
        return false;
    }
    return true;
}

TestCertificateAuthority::Issued TestCertificateAuthority::issue(const QString& commonName, const QStringList& altNames,
                                                                 Chain chain)
{
    const QString root = rootCertificate();
    const QString rootKey = m_dir.filePath(QStringLiteral("root.key"));
    const QString intermediate = m_dir.filePath(QStringLiteral("intermediate.pem"));
    const QString intermediateKey = m_dir.filePath(QStringLiteral("intermediate.key"));
    if (chain == Chain::WithIntermediate && !m_hasIntermediate) {
        m_hasIntermediate =
            run(QStringList{QStringLiteral("-extensions"), QStringLiteral("intermediate"), QStringLiteral("-subj"),
                            QStringLiteral("/CN=Brinmoor Test Intermediate"), QStringLiteral("-CA"), root,
                            QStringLiteral("-CAkey"), rootKey, QStringLiteral("-out"), intermediate} +
                newKey(intermediateKey));
    }
    const bool viaIntermediate = chain == Chain::WithIntermediate;
    const QString stem = QStringLiteral("server%1").arg(++m_issued);
    Issued issued{m_dir.filePath(stem + QStringLiteral(".pem")), m_dir.filePath(stem + QStringLiteral(".key"))};
    if (!run(QStringList{QStringLiteral("-extensions"), QStringLiteral("leaf"), QStringLiteral("-addext"),
                         QStringLiteral("subjectAltName=") + altNames.join(QLatin1Char(',')), QStringLiteral("-subj"),
                         QStringLiteral("/CN=") + commonName, QStringLiteral("-CA"),
                         viaIntermediate ? intermediate : root, QStringLiteral("-CAkey"),
                         viaIntermediate ? intermediateKey : rootKey, QStringLiteral("-out"), issued.certificate} +
             newKey(issued.key)))
        return {};
    if (viaIntermediate) {
        QFile certificate(issued.certificate);
        QFile second(intermediate);
        if (!certificate.open(QIODevice::Append) || !second.open(QIODevice::ReadOnly) ||
            certificate.write(second.readAll()) < 0)
            return {};
    }
    return issued;
}

QSslConfiguration TestCertificateAuthority::clientConfiguration() const
{
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setCaCertificates(QSslCertificate::fromPath(rootCertificate()));
    return configuration;
}

QByteArray spkiSha256(const QString& certificatePath)
{
    const QList<QSslCertificate> certificates = QSslCertificate::fromPath(certificatePath);
    if (certificates.isEmpty())
        return {};
    return QCryptographicHash::hash(certificates.first().publicKey().toDer(), QCryptographicHash::Sha256).toBase64();
}

} // namespace brinmoor::relay
