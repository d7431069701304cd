#include "app/command_line.h"

#include "base/open_file_limit.h"
#include "base/process_reaper.h"
#include "base/secret_environment.h"

#include "app/agent_only.h"
#include "app/headless.h"
#include "app/tray.h"

#include "config/agent_profile.h"
#include "config/connection_settings.h"
#include "config/runtime_defaults.h"
#include "config/settings_store.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>

#include <cstdio>

namespace brinmoor {

namespace {

void printTo(FILE* stream, const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
}

int printProfile()
{
    const std::unique_ptr<QSettingsStore> defaults = QSettingsStore::standard();
    const Environment env = currentEnvironment();
    RuntimeDefaults::ensure(*defaults, env);
    const AgentProfile profile = AgentProfile::load(*defaults, env, Machine::current());
    const ConnectionSettings connection = ConnectionSettings::load(*defaults, env);
    const qint64 port = defaults->integer(QStringLiteral("serverPort")).value_or(8080);
    printTo(stdout,
            QString::fromUtf8(QJsonDocument(profileReport(profile, connection, port)).toJson(QJsonDocument::Indented)));
    return 0;
}

} // namespace

CommandLineRequest parseCommandLine(const QStringList& arguments)
{
    CommandLineRequest request;
    for (const QString& argument : arguments) {
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            request.action = CommandLineRequest::Action::Help;
        } else if (argument == QLatin1String("--version")) {
            if (request.action != CommandLineRequest::Action::Help)
                request.action = CommandLineRequest::Action::Version;
        } else if (argument == QLatin1String("--headless")) {
            if (request.action == CommandLineRequest::Action::Run)
                request.action = CommandLineRequest::Action::Headless;
        } else if (argument == QLatin1String("--agent-only")) {
            if (request.action == CommandLineRequest::Action::Run)
                request.action = CommandLineRequest::Action::AgentOnly;
        } else if (argument == QLatin1String("--print-profile")) {
            if (request.action == CommandLineRequest::Action::Run)
                request.action = CommandLineRequest::Action::PrintProfile;
        } else {
            CommandLineRequest error;
            error.action = CommandLineRequest::Action::Error;
            error.error = argument.startsWith(QLatin1Char('-'))
                              ? QStringLiteral("BrinmoorMacAgent: unknown option: ") + argument
                              : QStringLiteral("BrinmoorMacAgent: unexpected argument: ") + argument;
            return error;
        }
    }
    return request;
}

QString helpText()
{
    return QStringLiteral("Usage: BrinmoorMacAgent [option]\n"
                          "\n"
                          "Without an option the agent runs in the system tray with its local server.\n"
                          "\n"
                          "The Brinmoor agent: lets the Wexlin phone app run commands, chats with claude and\n"
                          "codex, reviewed changes and terminal sessions on this computer.\n"
                          "\n"
                          "Options:\n"
                          "  --headless       run the local server and the agent without a tray, status\n"
                          "                   as log lines, pairing details printed once (also what\n"
                          "                   happens without a display or a system tray)\n"
                          "  --agent-only     run the agent connection alone (no local server, no tray)\n"
                          "                   against the configured server URL; stops on SIGINT or SIGTERM\n"
                          "  --print-profile  seed the settings, print the resolved profile and connection\n"
                          "                   settings as JSON (token masked), and exit\n"
                          "  --version        print the version and exit\n"
                          "  --help, -h       print this help and exit\n");
}

QJsonObject profileReport(const AgentProfile& profile, const ConnectionSettings& connection, qint64 serverPort)
{
    const QJsonObject profileObject{
        {QStringLiteral("profileId"), profile.profileId},
        {QStringLiteral("repoRoot"), profile.repoRoot},
        {QStringLiteral("buildTemplate"), profile.buildTemplate},
        {QStringLiteral("claudeChatTemplate"), profile.claudeChatTemplate},
        {QStringLiteral("codexChatTemplate"), profile.codexChatTemplate},
        {QStringLiteral("terminalChatTemplate"), profile.terminalChatTemplate},
        {QStringLiteral("aiPlanTemplate"), profile.aiPlanTemplate},
        {QStringLiteral("aiApplyTemplate"), profile.aiApplyTemplate},
        {QStringLiteral("mcpApproverPath"), profile.mcpApproverPath},
        {QStringLiteral("projects"), QJsonArray::fromStringList(profile.projects)},
        {QStringLiteral("createProjectRoot"),
         profile.createProjectRoot ? QJsonValue(*profile.createProjectRoot) : QJsonValue()},
        {QStringLiteral("actions"), QJsonArray::fromStringList(profile.actions)},
    };
    const QJsonObject connectionObject{
        {QStringLiteral("serverURL"), connection.serverURL},
        {QStringLiteral("serverPort"), serverPort},
        {QStringLiteral("agentId"), connection.agentId},
        {QStringLiteral("token"), maskToken(connection.token)},
    };
    return QJsonObject{{QStringLiteral("profile"), profileObject}, {QStringLiteral("connection"), connectionObject}};
}

int runCommandLine(int argc, char** argv)
{
    SecretEnvironment::hideFromProcessListings();
    raiseOpenFileLimit();
    QCoreApplication::setApplicationName(QStringLiteral("BrinmoorMacAgent"));
    QCoreApplication::setApplicationVersion(QStringLiteral(BRINMOOR_VERSION));
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    const CommandLineRequest request = parseCommandLine(arguments);
    // Whatever the agent starts goes when it goes, however it goes.
    if (request.action == CommandLineRequest::Action::Run || request.action == CommandLineRequest::Action::Headless ||
        request.action == CommandLineRequest::Action::AgentOnly)
        ProcessReaper::start();
    // The tray needs a widget application; everything else a plain one.
    if (request.action == CommandLineRequest::Action::Run)
        return Tray::run(argc, argv);

    QCoreApplication app(argc, argv);
    switch (request.action) {
    case CommandLineRequest::Action::Error: printTo(stderr, request.error + QLatin1Char('\n')); return 2;
    case CommandLineRequest::Action::Help: printTo(stdout, helpText()); return 0;
    case CommandLineRequest::Action::Version:
        printTo(stdout, QStringLiteral("BrinmoorMacAgent " BRINMOOR_VERSION "\n"));
        return 0;
    case CommandLineRequest::Action::AgentOnly: return runAgentOnly();
    case CommandLineRequest::Action::PrintProfile: return printProfile();
    case CommandLineRequest::Action::Headless:
    case CommandLineRequest::Action::Run: return runHeadless();
    }
    return 0;
}

} // namespace brinmoor
