#include "protocol/server_features.h"

#include "protocol/agent_command.h"

#include <QJsonArray>

namespace brinmoor {

namespace {

// The features in the order of names().
QList<bool*> flags(ServerFeatures& features)
{
    return {&features.seq, &features.ack,      &features.grace, &features.state, &features.pacing,
            &features.end, &features.projects, &features.files, &features.lines, &features.sessions};
}

} // namespace

const QStringList& ServerFeatures::names()
{
    static const QStringList names{QStringLiteral("seq"),      QStringLiteral("ack"),    QStringLiteral("grace"),
                                   QStringLiteral("state"),    QStringLiteral("pacing"), QStringLiteral("end"),
                                   QStringLiteral("projects"), QStringLiteral("files"),  QStringLiteral("lines"),
                                   QStringLiteral("sessions")};
    return names;
}

ServerFeatures ServerFeatures::all()
{
    ServerFeatures features;
    for (bool* flag : flags(features))
        *flag = true;
    return features;
}

std::optional<ServerFeatures> ServerFeatures::fromHello(const AgentCommand& hello)
{
    const JSONValue* list = hello.member(QStringLiteral("features"));
    if (!list || list->kind() != JSONValue::Kind::Array)
        return std::nullopt;
    ServerFeatures features;
    const QList<bool*> named = flags(features);
    for (const JSONValue& item : list->arrayValue()) {
        // Names the agent does not know are a newer server's: left alone.
        const qsizetype index = names().indexOf(item.stringValue().value_or(QString()));
        if (index >= 0)
            *named[index] = true;
    }
    // Confirmations are of numbered messages.
    features.ack = features.ack && features.seq;
    features.serverHas = std::max<qint64>(hello.intMember(QStringLiteral("seq")).value_or(0), 0);
    return features;
}

QStringList ServerFeatures::named() const
{
    ServerFeatures copy = *this;
    const QList<bool*> set = flags(copy);
    QStringList named;
    for (qsizetype i = 0; i < names().size(); ++i) {
        if (*set[i])
            named.append(names()[i]);
    }
    return named;
}

QJsonObject ServerFeatures::hello() const
{
    return QJsonObject{
        {QStringLiteral("type"), QStringLiteral("agent.hello")},
        {QStringLiteral("payload"), QJsonObject{{QStringLiteral("seq"), serverHas},
                                                {QStringLiteral("features"), QJsonArray::fromStringList(named())}}}};
}

} // namespace brinmoor
