#pragma once

#include <QSslConfiguration>
#include <QString>

#include <variant>

namespace brinmoor::relay {

// Where the relay's certificate chain and private key are (PEM files), as
// BRINMOOR_TLS_CERT and BRINMOOR_TLS_KEY name them. Both empty: plain HTTP.
struct TlsFiles {
    QString certificate;
    QString key;

    bool isSet() const { return !certificate.isEmpty() || !key.isEmpty(); }
};

// Reads the files into what the relay serves TLS with: the chain and the key, TLS 1.2 or
// newer, Qt's default ciphers, HTTP/1.1 offered by ALPN, no client certificates asked
// for. Otherwise the one sentence that says what is wrong with them.
std::variant<QSslConfiguration, QString> loadTlsConfiguration(const TlsFiles& files);

// When the certificate stops being valid, as the log shows it ("2026-05-01T12:00:00Z").
QString expiryText(const QSslConfiguration& configuration);

} // namespace brinmoor::relay
