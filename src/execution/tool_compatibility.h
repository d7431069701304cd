#pragma once

#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>

namespace brinmoor {

// What an installed `claude` or `codex` says it accepts: the help text of the tool
// itself and of each subcommand our commands use ("exec", "exec resume").
struct ToolHelp {
    QString tool;                        // "claude" or "codex"
    QString path;                        // the executable, links resolved
    QHash<QString, QString> textByScope; // "" for the tool itself, else "exec", "exec resume"
};

// A command made to fit the installed tool, with one diag line per change or doubt.
struct ToolAdaptation {
    QString shell;
    QStringList notes;
};

// Reading command lines that start `claude` or `codex`, and fitting their options to
// what the installed release accepts. Stateless.
namespace ToolOptions {

// One word of a shell command, as the shell would split it.
struct ShellWord {
    qsizetype start = 0;
    qsizetype end = 0;  // one past the last character
    QString text;       // the word after quote removal
    bool plain = false; // written without quotes or backslashes
};

// The words of the first simple command of a shell text: up to the first unquoted
// operator (";", "&", "|", "(", ")", "<", ">") or line end.
QList<ShellWord> commandWords(const QString& shell);

// Index of the word that names the program (leading NAME=VALUE assignments skipped),
// or -1.
qsizetype programWordIndex(const QList<ShellWord>& words);

// The text of the word that names the program of a shell text; empty when none does.
QString programWord(const QString& shell);

// "claude" or "codex" when the program word names one of them (by name or by a path
// ending in that name); absent otherwise.
std::optional<QString> toolNamed(const QString& programWord);

// The tool a command runs, as `toolNamed` of its program word.
std::optional<QString> toolOf(const QString& shell);

// The subcommands whose help a tool is asked for: codex {"", "exec", "exec resume"},
// claude {""}.
QStringList helpScopes(const QString& tool);

// Whether a help text names an option: the option as a whole word ("-p" is not found
// inside "--print").
bool mentions(const QString& helpText, const QString& option);

// Checks every option of the command against the help of the scope it is given in.
// "--full-auto", where codex no longer accepts it, becomes its successor
// "--sandbox workspace-write"; "--include-partial-messages", where claude does not
// know it yet, is dropped; any other option that the help does not name is left as it
// is and noted.
ToolAdaptation adaptCommand(const QString& shell, const ToolHelp& help);

// The executable a command's program word runs, links resolved: a path as it is
// (relative ones from the working folder), a name as the login shell finds it. Empty
// with the reason in `error` when there is none. Blocking: runs off the event loop.
QString resolveExecutable(const QString& programWord, const QString& workingDir, QString* error);

// Asks the executable for the help of each of the tool's scopes. Blocking: runs off
// the event loop. Empty with the reason in `error` when one of them fails.
std::optional<ToolHelp> readToolHelp(const QString& tool, const QString& executable, QString* error);

} // namespace ToolOptions

// Knows, before a command that starts `claude` or `codex` runs, which options the
// installed tool accepts, and adapts the command to it. The tool is asked (its help,
// off the event loop) once per executable path and modification time; the answers are
// kept for the life of the agent.
class ToolCompatibility : public QObject {
    Q_OBJECT

public:
    explicit ToolCompatibility(QObject* parent = nullptr);

    // Hands the command to run to `ready`, on the loop and in `context`'s life: at once
    // when it starts neither tool, else after the tool's options are known. A tool that
    // cannot be asked leaves the command as it is.
    void prepare(const QString& shell, const QString& workingDir, QObject* context,
                 std::function<void(const QString&)> ready);

private:
    struct Cache {
        QMutex lock;
        QHash<QString, ToolHelp> byExecutable; // key: path + modification time
    };
    std::shared_ptr<Cache> m_cache;
};

} // namespace brinmoor
