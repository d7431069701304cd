#pragma once

#include <QByteArray>
#include <QList>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QString>

#include <variant>

// Reading PEM files and deciding which servers to trust, for the three programs that
// speak TLS: the agent and the approval tool as clients of the relay, the relay as a
// server. Each program says in its own words what went wrong; the reading and the rule
// are here once.
namespace brinmoor::TlsTrust {

// The whole file, or why it could not be read (the system's reason, "No such file or
// directory"), whether opening or reading failed.
std::variant<QByteArray, QString> readFile(const QString& path);

// The certificates in PEM text, in order; none when it holds no readable certificate.
QList<QSslCertificate> certificatesIn(const QByteArray& pem);

// Which servers a client trusts. The rule, the same for the agent and the approval tool:
// - no pin: any server whose certificate the system's authorities or `authorities`
//   vouch for, for the name it is reached by;
// - a pin: that certificate alone, whatever name it is reached by and whoever issued
//   it. A pin is the whole of the trust: no authority counts then, the extra ones
//   included, so that a pinned client cannot be turned to another server that some
//   authority vouches for.
struct ServerTrust {
    QList<QSslCertificate> authorities; // trusted besides the system's
    QSslCertificate pinned;             // null: nothing pinned

    bool isPinned() const { return !pinned.isNull(); }

    // `base` set up for the rule: the extra authorities added, or, with a pin, none at
    // all, so that every certificate comes to the handshake's errors, where the pin
    // decides before anything (a token) is sent.
    QSslConfiguration configure(QSslConfiguration base = QSslConfiguration::defaultConfiguration()) const;

    // Whether a handshake that failed verification may go on: only for the pinned
    // certificate itself.
    bool overrulesErrors(const QSslCertificate& peer) const;
};

} // namespace brinmoor::TlsTrust
