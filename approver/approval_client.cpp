#include "approval_client.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QProcessEnvironment>
#include <QSslConfiguration>
#include <QTimer>
#include <QUrl>

namespace brinmoor::approver {

namespace {

QByteArray json(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// The certificates of a PEM file named by `variable`; none, with the reason in
// `unavailable`, when it holds none.
QList<QSslCertificate> certificatesFrom(const QProcessEnvironment& env, const QString& variable, QString& unavailable)
{
    const QString path = env.value(variable);
    if (path.isEmpty() || !unavailable.isEmpty())
        return {};
    const auto text = TlsTrust::readFile(path);
    if (const QString* reason = std::get_if<QString>(&text)) {
        unavailable =
            QStringLiteral("cannot read ") + variable + QLatin1Char(' ') + path + QStringLiteral(": ") + *reason;
        return {};
    }
    const QList<QSslCertificate> certificates = TlsTrust::certificatesIn(std::get<QByteArray>(text));
    if (certificates.isEmpty())
        unavailable = variable + QStringLiteral(" holds no PEM certificate: ") + path;
    return certificates;
}

// The server's answer, when it is one of the two decisions.
std::optional<QByteArray> validDecision(const QByteArray& body)
{
    const QJsonObject object = QJsonDocument::fromJson(body).object();
    const QString behavior = object.value(QStringLiteral("behavior")).toString();
    if (behavior == QLatin1String("allow") && object.contains(QStringLiteral("updatedInput"))) {
        return json(QJsonObject{{QStringLiteral("behavior"), behavior},
                                {QStringLiteral("updatedInput"), object.value(QStringLiteral("updatedInput"))}});
    }
    if (behavior == QLatin1String("deny") && object.value(QStringLiteral("message")).isString()) {
        return json(QJsonObject{{QStringLiteral("behavior"), behavior},
                                {QStringLiteral("message"), object.value(QStringLiteral("message"))}});
    }
    return std::nullopt;
}

} // namespace

ApprovalSettings settingsFromEnvironment()
{
    const QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    ApprovalSettings settings;
    settings.serverURL = env.value(QStringLiteral("BRINMOOR_SERVER_URL")).trimmed();
    settings.token = env.value(QStringLiteral("BRINMOOR_TOKEN"));
    // The token may come in an owner-only file instead, so that it never stands on a
    // command line (codex passes its MCP servers' settings as arguments).
    const QString tokenFile = env.value(QStringLiteral("BRINMOOR_TOKEN_FILE"));
    if (settings.token.isEmpty() && !tokenFile.isEmpty()) {
        QFile file(tokenFile);
        if (file.open(QIODevice::ReadOnly))
            settings.token = QString::fromUtf8(file.read(4096)).trimmed();
        else
            settings.unavailable = QStringLiteral("cannot read BRINMOOR_TOKEN_FILE ") + tokenFile +
                                   QStringLiteral(": ") + file.errorString();
    }
    settings.taskId = env.value(QStringLiteral("BRINMOOR_TASK_ID"));
    settings.trust.authorities = certificatesFrom(env, QStringLiteral("BRINMOOR_TLS_CA"), settings.unavailable);
    settings.trust.pinned =
        certificatesFrom(env, QStringLiteral("BRINMOOR_TLS_PINNED_CERT"), settings.unavailable).value(0);
    bool ok = false;
    const int seconds = env.value(QStringLiteral("BRINMOOR_APPROVAL_WAIT_SEC")).toInt(&ok);
    if (ok && seconds > 0 && seconds <= 24 * 3600)
        settings.waitMs = seconds * 1000;
    return settings;
}

QByteArray denyDecision(const QString& message)
{
    return json(
        QJsonObject{{QStringLiteral("behavior"), QStringLiteral("deny")}, {QStringLiteral("message"), message}});
}

ApprovalClient::ApprovalClient(ApprovalSettings settings, QObject* parent)
    : QObject(parent), m_settings(std::move(settings))
{
    // The server is on loopback or the LAN; a proxy from the environment has no business here.
    m_network.setProxy(QNetworkProxy::NoProxy);
}

ApprovalClient::~ApprovalClient()
{
    cancelAll();
}

void ApprovalClient::request(qint64 key, const QString& toolName, const QJsonValue& toolInput, const QString& toolUseId,
                             Answer answer)
{
    if (!m_settings.unavailable.isEmpty()) {
        answer(denyDecision(QStringLiteral("approval unavailable: ") + m_settings.unavailable));
        return;
    }
    QString missing;
    if (m_settings.serverURL.isEmpty())
        missing = QStringLiteral("BRINMOOR_SERVER_URL");
    else if (m_settings.token.isEmpty())
        missing = QStringLiteral("BRINMOOR_TOKEN");
    else if (m_settings.taskId.isEmpty())
        missing = QStringLiteral("BRINMOOR_TASK_ID");
    if (!missing.isEmpty()) {
        answer(denyDecision(QStringLiteral("approval unavailable: ") + missing + QStringLiteral(" is not set")));
        return;
    }
    QString base = m_settings.serverURL;
    while (base.endsWith(QLatin1Char('/')))
        base.chop(1);
    const QUrl url(base + QStringLiteral("/v1/approvals"), QUrl::StrictMode);
    if (!url.isValid() || (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https"))) {
        answer(denyDecision(QStringLiteral("approval unavailable: BRINMOOR_SERVER_URL is not an http URL: ") +
                            m_settings.serverURL));
        return;
    }
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setRawHeader("Authorization", "Bearer " + m_settings.token.toUtf8());
    QJsonObject body{{QStringLiteral("taskId"), m_settings.taskId},
                     {QStringLiteral("toolName"), toolName},
                     {QStringLiteral("toolInput"), toolInput}};
    if (!toolUseId.isEmpty())
        body.insert(QStringLiteral("toolUseId"), toolUseId);
    if (url.scheme() == QLatin1String("https"))
        request.setSslConfiguration(m_settings.trust.configure());
    QNetworkReply* reply = m_network.post(request, json(body));
    if (m_settings.trust.isPinned()) {
        connect(reply, &QNetworkReply::sslErrors, reply, [this, reply] {
            if (m_settings.trust.overrulesErrors(reply->sslConfiguration().peerCertificate()))
                reply->ignoreSslErrors();
        });
    }
    m_pending[key] = Pending{reply, std::move(answer)};
    connect(reply, &QNetworkReply::finished, this, [this, key] { finished(key); });
    auto* timer = new QTimer(reply);
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, this, [this, key] {
        const auto it = m_pending.find(key);
        if (it == m_pending.end())
            return;
        it->second.timedOut = true;
        it->second.reply->abort();
    });
    timer->start(m_settings.waitMs);
}

void ApprovalClient::finished(qint64 key)
{
    const auto it = m_pending.find(key);
    if (it == m_pending.end())
        return;
    QNetworkReply* reply = it->second.reply;
    const Answer answer = std::move(it->second.answer);
    const bool timedOut = it->second.timedOut;
    m_pending.erase(it);
    reply->deleteLater();

    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray body = reply->readAll();
    if (timedOut) {
        answer(denyDecision(
            QStringLiteral("no answer from the approval server within %1 seconds").arg(m_settings.waitMs / 1000)));
    } else if (status == 0) {
        answer(denyDecision(QStringLiteral("approval server unreachable: ") + reply->errorString()));
    } else if (status != 200) {
        QString reason = QJsonDocument::fromJson(body).object().value(QStringLiteral("error")).toString();
        if (reason.isEmpty())
            reason = QString::fromUtf8(body.left(200)).trimmed();
        answer(
            denyDecision(QStringLiteral("approval server refused the request (HTTP %1): %2").arg(status).arg(reason)));
    } else if (const std::optional<QByteArray> decision = validDecision(body)) {
        answer(*decision);
    } else {
        answer(denyDecision(QStringLiteral("approval server sent an invalid answer")));
    }
}

void ApprovalClient::cancel(qint64 key)
{
    const auto it = m_pending.find(key);
    if (it == m_pending.end())
        return;
    QNetworkReply* reply = it->second.reply;
    m_pending.erase(it);
    reply->abort();
    reply->deleteLater();
}

void ApprovalClient::cancelAll()
{
    while (!m_pending.empty())
        cancel(m_pending.begin()->first);
}

} // namespace brinmoor::approver
