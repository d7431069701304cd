#pragma once

#include <QList>
#include <QSslCertificate>
#include <QSslError>
#include <QString>

#include <variant>

namespace brinmoor::ServerCertificate {

// The certificates of a PEM file, or why there are none: "cannot read PATH: REASON",
// "no PEM certificate in PATH".
std::variant<QList<QSslCertificate>, QString> load(const QString& path);

// Why a pinned connection was refused: "the server's certificate is not the one in PATH".
QString notPinned(const QString& path);

// Why the server's certificate did not verify: "the server's certificate was refused: "
// and what the verification found, each once, joined by "; ".
QString refused(const QList<QSslError>& errors);

} // namespace brinmoor::ServerCertificate
