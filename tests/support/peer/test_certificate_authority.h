#pragma once

#include <QSslConfiguration>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A certificate authority for the tests and benchmarks that speak TLS to the relay. Not
// part of the server.
namespace brinmoor::relay {

// Made with the openssl command in a temporary folder (EC P-256 keys): a root, and on
// demand an intermediate, that issue server certificates for names and addresses.
class TestCertificateAuthority {
public:
    struct Issued {
        QString certificate; // PEM: the certificate, then the intermediate when there is one
        QString key;         // PEM, not encrypted
    };
    enum class Chain { LeafOnly, WithIntermediate };

    // `name` goes into the root's common name, so that two authorities tell apart.
    explicit TestCertificateAuthority(const QString& name = QStringLiteral("Brinmoor Test CA"));

    // Empty when the authority was made; otherwise what went wrong.
    const QString& error() const { return m_error; }
    // The root's certificate, as a phone or a browser installs it.
    QString rootCertificate() const { return m_dir.filePath(QStringLiteral("root.pem")); }

    // A server certificate with these subject alternative names ("DNS:localhost",
    // "IP:127.0.0.1"); an empty certificate path when openssl failed.
    Issued issue(const QString& commonName, const QStringList& altNames, Chain chain = Chain::LeafOnly);

    // What a client needs to trust this authority and nothing else.
    QSslConfiguration clientConfiguration() const;

private:
    bool run(const QStringList& arguments);

    QTemporaryDir m_dir;
    QString m_error;
    int m_issued = 0;
    bool m_hasIntermediate = false;
};

// The SHA-256 of a certificate's public key (its SubjectPublicKeyInfo), in base64: what
// Chromium's --ignore-certificate-errors-spki-list takes.
QByteArray spkiSha256(const QString& certificatePath);

} // namespace brinmoor::relay
