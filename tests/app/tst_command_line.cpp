#include "app/command_line.h"
#include "config/connection_settings.h"
#include "config/settings_store.h"
#include "support/test_support.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;

namespace {

struct Run {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// Runs the real program with its own config home, so the user's settings stay untouched.
Run runAgent(const QStringList& arguments, const QString& configHome)
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome);
    for (const char* name : {"BRINMOOR_SERVER_URL", "BRINMOOR_AGENT_ID", "BRINMOOR_SHARED_TOKEN",
                             "BRINMOOR_SERVER_PORT", "BRINMOOR_PROFILE_ID", "BRINMOOR_REPO_ROOT"})
        env.remove(QLatin1String(name));
    process.setProcessEnvironment(env);
    process.start(test::binDir() + QStringLiteral("/BrinmoorMacAgent"), arguments);
    Run run;
    if (!process.waitForFinished(30000))
        return run;
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

} // namespace

class TstCommandLine : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void printProfileOnAnEmptyStoreSeedsAFreshToken()
    {
        QTemporaryDir configHome;
        const Run run = runAgent({QStringLiteral("--print-profile")}, configHome.path());
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.err, QByteArray());
        QJsonParseError error;
        const QJsonObject report = QJsonDocument::fromJson(run.out, &error).object();
        QCOMPARE(error.error, QJsonParseError::NoError);

        const QString iniPath = configHome.path() + QStringLiteral("/brinmoor/BrinmoorMacAgent.ini");
        QCOMPARE(test::fileMode(iniPath), 0600);
        const QString token = QSettingsStore(iniPath).string(QStringLiteral("token")).value_or(QString());
        QVERIFY2(QRegularExpression(QStringLiteral("^[0-9a-f]{32}$")).match(token).hasMatch(), qPrintable(token));

        const QJsonObject connection = report.value(QStringLiteral("connection")).toObject();
        QCOMPARE(connection.value(QStringLiteral("token")).toString(), token.left(4) + QStringLiteral("…"));
        QCOMPARE(connection.value(QStringLiteral("serverURL")).toString(), QStringLiteral("http://127.0.0.1:8080"));
        QCOMPARE(connection.value(QStringLiteral("serverPort")).toInt(), 8080);
        QVERIFY(!run.out.contains(token.toUtf8()));

        const QJsonObject profile = report.value(QStringLiteral("profile")).toObject();
        QCOMPARE(profile.value(QStringLiteral("profileId")).toString(), QStringLiteral("ios-local"));
        QCOMPARE(profile.keys(),
                 (QStringList{"actions", "aiApplyTemplate", "aiPlanTemplate", "buildTemplate", "claudeChatTemplate",
                              "codexChatTemplate", "createProjectRoot", "mcpApproverPath", "profileId", "projects",
                              "repoRoot", "terminalChatTemplate"}));

        // A second run keeps the stored token.
        const Run again = runAgent({QStringLiteral("--print-profile")}, configHome.path());
        QCOMPARE(again.exitCode, 0);
        QCOMPARE(QSettingsStore(iniPath).string(QStringLiteral("token")), std::optional<QString>(token));
    }

    void unknownOptionIsOneLineAndStatus2()
    {
        QTemporaryDir configHome;
        const Run run = runAgent({QStringLiteral("--frobnicate")}, configHome.path());
        QCOMPARE(run.exitCode, 2);
        QCOMPARE(run.err, QByteArray("BrinmoorMacAgent: unknown option: --frobnicate\n"));
        QCOMPARE(run.out, QByteArray());
        const Run positional = runAgent({QStringLiteral("extra")}, configHome.path());
        QCOMPARE(positional.exitCode, 2);
        QCOMPARE(positional.err, QByteArray("BrinmoorMacAgent: unexpected argument: extra\n"));
    }

    void versionAndHelp()
    {
        QTemporaryDir configHome;
        const Run version = runAgent({QStringLiteral("--version")}, configHome.path());
        QCOMPARE(version.exitCode, 0);
        QCOMPARE(version.out, QByteArray("BrinmoorMacAgent " BRINMOOR_VERSION "\n"));
        const Run help = runAgent({QStringLiteral("--help")}, configHome.path());
        QCOMPARE(help.exitCode, 0);
        QCOMPARE(help.out, helpText().toUtf8());
    }

    void maskTokenShowsFourCharacters()
    {
        QCOMPARE(maskToken(QStringLiteral("0123456789abcdef")), QStringLiteral("0123…"));
        QCOMPARE(maskToken(QStringLiteral("ab")), QStringLiteral("ab…"));
        QCOMPARE(maskToken(QString()), QString());
    }

    void parseCommandLinePicksTheAction()
    {
        QCOMPARE(int(parseCommandLine({}).action), int(CommandLineRequest::Action::Run));
        QCOMPARE(int(parseCommandLine({QStringLiteral("--print-profile")}).action),
                 int(CommandLineRequest::Action::PrintProfile));
        QCOMPARE(int(parseCommandLine({QStringLiteral("--version"), QStringLiteral("--help")}).action),
                 int(CommandLineRequest::Action::Help));
    }
};

QTEST_GUILESS_MAIN(TstCommandLine)
#include "tst_command_line.moc"
