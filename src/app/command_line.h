#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

namespace brinmoor {

struct AgentProfile;
struct ConnectionSettings;

// What the command line asks for.
struct CommandLineRequest {
    enum class Action { Help, Version, PrintProfile, AgentOnly, Headless, Run, Error };
    Action action = Action::Run;
    QString error; // for Action::Error: the one line to print
};

// Reads the arguments after the program name.
CommandLineRequest parseCommandLine(const QStringList& arguments);

// The help text printed by --help.
QString helpText();

// The resolved profile and connection settings, as --print-profile prints them.
QJsonObject profileReport(const AgentProfile& profile, const ConnectionSettings& connection, qint64 serverPort);

// The program's entry: parses the arguments and runs what they ask for.
int runCommandLine(int argc, char** argv);

} // namespace brinmoor
