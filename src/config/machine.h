#pragma once

#include <QMap>
#include <QString>

namespace brinmoor {

// The process environment as a string map.
using Environment = QMap<QString, QString>;

// What the configuration reads from the machine it runs on. Tests build one by
// hand; `current()` reads the real machine.
struct Machine {
    // The path the program was started by (its first command-line argument), absolute
    // and standardised. A link is not followed: a program started through a link finds
    // its deploy.sh and its approval tool from the link's folder.
    QString executablePath;
    // The folder the program's file really is in, links followed: the application
    // bundle's executables on macOS, the build's output folder elsewhere. The programs
    // that ship with the agent (brinmoor-server) are there. Empty when unknown.
    QString bundleDirectory;
    QString currentDirectory; // the process's working directory
    QString homeDirectory;    // the current user's home folder
    QString hostName;         // the computer's name as the user sees it; may be empty

    static Machine current();
};

// The real process environment.
Environment currentEnvironment();

// The folder the agent keeps its state in (chat sessions, task output):
// $XDG_STATE_HOME (default ~/.local/state)/brinmoor, on macOS
// ~/Library/Application Support/BrinmoorMacAgent.
QString agentStateFolder(const Environment& env, const QString& home);

} // namespace brinmoor
