// What a server's hello offers beyond the agent protocol.
#include "protocol/agent_command.h"
#include "protocol/server_features.h"

#include <QJsonDocument>
#include <QTest>

using namespace brinmoor;

namespace {

std::optional<ServerFeatures> offered(const QByteArray& hello)
{
    const std::optional<AgentCommand> command = AgentCommand::decode(hello);
    if (!command)
        qFatal("the hello did not decode");
    return ServerFeatures::fromHello(*command);
}

} // namespace

class TstServerFeatures : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aHelloWithoutAListOffersNothing()
    {
        QVERIFY(!offered(R"({"type":"agent.hello"})"));
        QVERIFY(!offered(R"({"type":"agent.hello","payload":{}})"));
        QVERIFY(!offered(R"({"type":"agent.hello","payload":{"seq":12}})"));
        QVERIFY(!offered(R"({"type":"agent.hello","payload":{"seq":12,"features":"seq"}})"));
    }

    void theRelaysHelloOffersEverything()
    {
        ServerFeatures all = ServerFeatures::all();
        all.serverHas = 42;
        QCOMPARE(
            QJsonDocument(all.hello()).toJson(QJsonDocument::Compact),
            QByteArray(
                R"({"payload":{"features":["seq","ack","grace","state","pacing","end","projects","files","lines","sessions"],"seq":42},)"
                R"("type":"agent.hello"})"));
        const std::optional<ServerFeatures> features = offered(QJsonDocument(all.hello()).toJson());
        QVERIFY(features);
        QVERIFY(features->seq && features->ack && features->grace && features->state && features->pacing &&
                features->end && features->projects && features->files && features->lines && features->sessions);
        QVERIFY(features->keepsUnconfirmed());
        QCOMPARE(features->serverHas, 42);
        QCOMPARE(features->named(), ServerFeatures::names());
    }

    void onlyWhatIsNamedIsOffered()
    {
        const std::optional<ServerFeatures> features =
            offered(R"({"type":"agent.hello","payload":{"features":["files","pacing","push",7,"grace"]}})");
        QVERIFY(features);
        QCOMPARE(features->named(),
                 (QStringList{QStringLiteral("grace"), QStringLiteral("pacing"), QStringLiteral("files")}));
        QVERIFY(features->files && !features->projects);
        QCOMPARE(features->serverHas, 0);
        QVERIFY(!features->keepsUnconfirmed());
        // An empty list is an announcement of nothing.
        const std::optional<ServerFeatures> none = offered(R"({"type":"agent.hello","payload":{"features":[]}})");
        QVERIFY(none);
        QVERIFY(none->named().isEmpty());
    }

    void sessionsAreNamedLast()
    {
        QCOMPARE(ServerFeatures::names().last(), QStringLiteral("sessions"));
        const std::optional<ServerFeatures> features =
            offered(R"({"type":"agent.hello","payload":{"features":["sessions","lines"]}})");
        QVERIFY(features);
        QVERIFY(features->sessions && features->lines && !features->projects);
        QCOMPARE(features->named(), (QStringList{QStringLiteral("lines"), QStringLiteral("sessions")}));
        ServerFeatures only;
        only.sessions = true;
        QCOMPARE(QJsonDocument(only.hello()).toJson(QJsonDocument::Compact),
                 QByteArray(R"({"payload":{"features":["sessions"],"seq":0},"type":"agent.hello"})"));
        // A server that does not name it offers no sessions.
        const std::optional<ServerFeatures> older =
            offered(R"({"type":"agent.hello","payload":{"features":["seq","ack","lines"]}})");
        QVERIFY(older);
        QVERIFY(!older->sessions);
    }

    void confirmationsAreOfNumberedMessages()
    {
        const std::optional<ServerFeatures> features =
            offered(R"({"type":"agent.hello","payload":{"seq":-5,"features":["ack","state"]}})");
        QVERIFY(features);
        QVERIFY(!features->ack);
        QCOMPARE(features->named(), QStringList{QStringLiteral("state")});
        QCOMPARE(features->serverHas, 0);
    }
};

QTEST_GUILESS_MAIN(TstServerFeatures)
#include "tst_server_features.moc"
