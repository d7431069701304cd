#include "test_certificate_authority.h"
#include "tls/tls_trust.h"

#include <QFile>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;

class TstTlsTrust : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void readsAFileOrSaysWhyNot()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("a.pem"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("text");
        file.close();
        QCOMPARE(std::get<QByteArray>(TlsTrust::readFile(path)), QByteArray("text"));
        QCOMPARE(std::get<QString>(TlsTrust::readFile(dir.filePath(QStringLiteral("none.pem")))),
                 QStringLiteral("No such file or directory"));
    }

    void findsEveryCertificateOfAChainAndNoneInOtherText()
    {
        relay::TestCertificateAuthority authority;
        QVERIFY2(authority.error().isEmpty(), qPrintable(authority.error()));
        const auto issued = authority.issue(QStringLiteral("localhost"), {QStringLiteral("DNS:localhost")},
                                            relay::TestCertificateAuthority::Chain::WithIntermediate);
        const QList<QSslCertificate> chain =
            TlsTrust::certificatesIn(std::get<QByteArray>(TlsTrust::readFile(issued.certificate)));
        QCOMPARE(chain.size(), 2);
        QCOMPARE(chain.first().subjectInfo(QSslCertificate::CommonName), QStringList{QStringLiteral("localhost")});
        // A private key is PEM too, but no certificate.
        QVERIFY(TlsTrust::certificatesIn(std::get<QByteArray>(TlsTrust::readFile(issued.key))).isEmpty());
        QVERIFY(
            TlsTrust::certificatesIn("-----BEGIN CERTIFICATE-----\nnot base64\n-----END CERTIFICATE-----\n").isEmpty());
    }

    void aPinIsTheWholeOfTheTrust()
    {
        relay::TestCertificateAuthority authority;
        QVERIFY2(authority.error().isEmpty(), qPrintable(authority.error()));
        const QList<QSslCertificate> root =
            TlsTrust::certificatesIn(std::get<QByteArray>(TlsTrust::readFile(authority.rootCertificate())));
        const auto read = [](const QString& path) {
            return TlsTrust::certificatesIn(std::get<QByteArray>(TlsTrust::readFile(path))).first();
        };
        const QSslCertificate pinned =
            read(authority.issue(QStringLiteral("a"), {QStringLiteral("DNS:a")}).certificate);
        const QSslCertificate other = read(authority.issue(QStringLiteral("b"), {QStringLiteral("DNS:b")}).certificate);

        TlsTrust::ServerTrust byAuthority{root, QSslCertificate()};
        QVERIFY(!byAuthority.isPinned());
        QVERIFY(byAuthority.configure().caCertificates().contains(root.first()));
        QVERIFY(!byAuthority.overrulesErrors(pinned));

        TlsTrust::ServerTrust byPin{root, pinned};
        QVERIFY(byPin.isPinned());
        QVERIFY(byPin.configure().caCertificates().isEmpty());
        QVERIFY(byPin.overrulesErrors(pinned));
        QVERIFY(!byPin.overrulesErrors(other));
        QVERIFY(!byPin.overrulesErrors(QSslCertificate()));
    }
};

QTEST_GUILESS_MAIN(TstTlsTrust)
#include "tst_tls_trust.moc"
