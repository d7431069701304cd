#include "execution/tool_compatibility.h"

#include "base/diag.h"
#include "execution/child_process.h"
#include "execution/execution_resolution.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QPointer>
#include <QProcess>
#include <QRegularExpression>
#include <QtConcurrent/QtConcurrentRun>

namespace brinmoor {

namespace ToolOptions {

namespace {

// How long a tool may take to print its help before it counts as failed.
constexpr int kHelpTimeoutMilliseconds = 15000;

bool endsCommand(QChar c)
{
    switch (c.unicode()) {
    case u';':
    case u'&':
    case u'|':
    case u'(':
    case u')':
    case u'<':
    case u'>':
    case u'\n': return true;
    default: return false;
    }
}

bool isAssignment(const ShellWord& word)
{
    static const QRegularExpression assignment(QStringLiteral("^[A-Za-z_][A-Za-z0-9_]*="));
    return word.plain && assignment.match(word.text).hasMatch();
}

// Runs a program to its end with output and error merged; false with the reason when
// it could not start, took too long or failed.
bool runToEnd(const QString& program, const QStringList& arguments, const QString& workingDir, QString* output,
              QString* error)
{
    QProcess process;
    process.setProgram(program);
    process.setArguments(arguments);
    process.setWorkingDirectory(workingDir);
    // The login shell of the probe and the tool asked for its help are children too.
    process.setProcessEnvironment(ChildProcess::childEnvironment());
    process.setStandardInputFile(QProcess::nullDevice());
    process.setProcessChannelMode(QProcess::MergedChannels);
    const QString described = QFileInfo(program).fileName() + QLatin1Char(' ') + arguments.join(QLatin1Char(' '));
    process.start();
    if (!process.waitForStarted(kHelpTimeoutMilliseconds)) {
        *error = QStringLiteral("`") + described + QStringLiteral("` did not start: ") + process.errorString();
        return false;
    }
    if (!process.waitForFinished(kHelpTimeoutMilliseconds)) {
        process.kill();
        process.waitForFinished(-1);
        *error = QStringLiteral("`") + described + QStringLiteral("` did not finish within ") +
                 QString::number(kHelpTimeoutMilliseconds / 1000) + QStringLiteral(" s");
        return false;
    }
    *output = QString::fromUtf8(process.readAll());
    if (process.exitStatus() != QProcess::NormalExit) {
        *error = QStringLiteral("`") + described + QStringLiteral("` was ended by a signal");
        return false;
    }
    if (process.exitCode() != 0) {
        *error = QStringLiteral("`") + described + QStringLiteral("` exited with status ") +
                 QString::number(process.exitCode());
        return false;
    }
    return true;
}

} // namespace

QList<ShellWord> commandWords(const QString& shell)
{
    QList<ShellWord> words;
    std::optional<ShellWord> word;
    const auto close = [&](qsizetype at) {
        if (word) {
            word->end = at;
            words.append(*word);
            word.reset();
        }
    };
    const auto open = [&](qsizetype at) {
        if (!word) {
            word = ShellWord{};
            word->start = at;
            word->plain = true;
        }
    };
    for (qsizetype i = 0; i < shell.size(); ++i) {
        const QChar c = shell[i];
        if (c == QLatin1Char(' ') || c == QLatin1Char('\t')) {
            close(i);
        } else if (endsCommand(c)) {
            close(i);
            return words;
        } else if (c == QLatin1Char('\'')) {
            open(i);
            word->plain = false;
            const qsizetype end = shell.indexOf(QLatin1Char('\''), i + 1);
            const qsizetype stop = end < 0 ? shell.size() : end;
            word->text += QStringView(shell).mid(i + 1, stop - i - 1);
            i = stop;
        } else if (c == QLatin1Char('"')) {
            open(i);
            word->plain = false;
            for (++i; i < shell.size() && shell[i] != QLatin1Char('"'); ++i) {
                if (shell[i] == QLatin1Char('\\') && i + 1 < shell.size() &&
                    QStringView(u"\"\\$`").contains(shell[i + 1]))
                    ++i;
                word->text += shell[i];
            }
        } else if (c == QLatin1Char('\\')) {
            open(i);
            word->plain = false;
            if (i + 1 < shell.size())
                word->text += shell[++i];
        } else {
            open(i);
            word->text += c;
        }
    }
    close(shell.size());
    return words;
}

qsizetype programWordIndex(const QList<ShellWord>& words)
{
    for (qsizetype i = 0; i < words.size(); ++i) {
        if (!isAssignment(words[i]))
            return i;
    }
    return -1;
}

QString programWord(const QString& shell)
{
    const QList<ShellWord> words = commandWords(shell);
    const qsizetype index = programWordIndex(words);
    return index < 0 ? QString() : words[index].text;
}

std::optional<QString> toolNamed(const QString& programWord)
{
    const QString name = QFileInfo(programWord).fileName();
    if (name == QLatin1String("claude") || name == QLatin1String("codex"))
        return name;
    return std::nullopt;
}

std::optional<QString> toolOf(const QString& shell)
{
    return toolNamed(programWord(shell));
}

QStringList helpScopes(const QString& tool)
{
    if (tool == QLatin1String("codex"))
        return {QString(), QStringLiteral("exec"), QStringLiteral("exec resume")};
    return {QString()};
}

bool mentions(const QString& helpText, const QString& option)
{
    const QRegularExpression word(QStringLiteral("(?<![A-Za-z0-9_-])") + QRegularExpression::escape(option) +
                                  QStringLiteral("(?![A-Za-z0-9_-])"));
    return word.match(helpText).hasMatch();
}

ToolAdaptation adaptCommand(const QString& shell, const ToolHelp& help)
{
    ToolAdaptation adaptation{shell, {}};
    const QList<ShellWord> words = commandWords(shell);
    const qsizetype program = programWordIndex(words);
    if (program < 0)
        return adaptation;
    const QStringList scopes = helpScopes(help.tool);
    QString scope;
    struct Replacement {
        qsizetype start;
        qsizetype end;
        QString text;
    };
    QList<Replacement> replacements;
    for (qsizetype i = program + 1; i < words.size(); ++i) {
        const ShellWord& word = words[i];
        if (!word.plain)
            continue;
        const bool isOption = word.text.startsWith(QLatin1Char('-')) && word.text != QLatin1String("-") &&
                              word.text != QLatin1String("--");
        if (!isOption) {
            // A subcommand word moves the check to that subcommand's options.
            const QString deeper = scope.isEmpty() ? word.text : scope + QLatin1Char(' ') + word.text;
            if (scopes.contains(deeper))
                scope = deeper;
            continue;
        }
        const QString option = word.text.section(QLatin1Char('='), 0, 0);
        const auto text = help.textByScope.constFind(scope);
        if (text == help.textByScope.cend() || mentions(*text, option))
            continue;
        const QString where =
            help.tool + (scope.isEmpty() ? QString() : QLatin1Char(' ') + scope) + QStringLiteral(" at ") + help.path;
        if (help.tool == QLatin1String("codex") && option == QLatin1String("--full-auto") && word.text == option &&
            mentions(*text, QStringLiteral("--sandbox"))) {
            replacements.append({word.start, word.end, QStringLiteral("--sandbox workspace-write")});
            adaptation.notes.append(QStringLiteral("toolCompatibility ") + where +
                                    QStringLiteral(" does not accept --full-auto; using --sandbox workspace-write"));
            continue;
        }
        if (help.tool == QLatin1String("claude") && word.text == QLatin1String("--include-partial-messages")) {
            // Without it the answer comes a whole block at a time; with it such a claude
            // would not start at all.
            replacements.append({word.start, word.end + (word.end < shell.size() ? 1 : 0), QString()});
            adaptation.notes.append(QStringLiteral("toolCompatibility ") + where +
                                    QStringLiteral(" does not accept --include-partial-messages; the answer comes "
                                                   "a block at a time"));
            continue;
        }
        adaptation.notes.append(QStringLiteral("toolCompatibility ") + where + QStringLiteral(" does not list ") +
                                option + QStringLiteral("; the command keeps it"));
    }
    for (auto it = replacements.crbegin(); it != replacements.crend(); ++it)
        adaptation.shell.replace(it->start, it->end - it->start, it->text);
    return adaptation;
}

QString resolveExecutable(const QString& programWord, const QString& workingDir, QString* error)
{
    QString path = programWord;
    if (!programWord.contains(QLatin1Char('/'))) {
        // The command runs under the login shell, whose PATH may differ from the agent's.
        QString output;
        if (!runToEnd(
                QStringLiteral("/bin/zsh"),
                {QStringLiteral("-lc"), QStringLiteral("whence -p -- ") + ExecutionResolution::shellQuote(programWord)},
                workingDir, &output, error)) {
            *error = programWord + QStringLiteral(" is not on the login shell's PATH");
            return QString();
        }
        path = output.trimmed();
    } else if (QFileInfo(programWord).isRelative()) {
        path = QDir(workingDir).absoluteFilePath(programWord);
    }
    const QFileInfo info(path);
    if (!info.isFile() || !info.isExecutable()) {
        *error = path + QStringLiteral(" is not an executable file");
        return QString();
    }
    return info.canonicalFilePath();
}

std::optional<ToolHelp> readToolHelp(const QString& tool, const QString& executable, QString* error)
{
    ToolHelp help{tool, executable, {}};
    for (const QString& scope : helpScopes(tool)) {
        QStringList arguments = scope.isEmpty() ? QStringList() : scope.split(QLatin1Char(' '));
        arguments.append(QStringLiteral("--help"));
        QString output;
        if (!runToEnd(executable, arguments, QFileInfo(executable).path(), &output, error))
            return std::nullopt;
        help.textByScope.insert(scope, output);
    }
    return help;
}

} // namespace ToolOptions

ToolCompatibility::ToolCompatibility(QObject* parent) : QObject(parent), m_cache(std::make_shared<Cache>()) {}

void ToolCompatibility::prepare(const QString& shell, const QString& workingDir, QObject* context,
                                std::function<void(const QString&)> ready)
{
    const QString programWord = ToolOptions::programWord(shell);
    const std::optional<QString> tool = ToolOptions::toolNamed(programWord);
    if (!tool) {
        ready(shell);
        return;
    }
    struct Answer {
        std::optional<ToolHelp> help;
        QString error;
    };
    auto* watcher = new QFutureWatcher<Answer>(this);
    QPointer<QObject> guard(context);
    connect(watcher, &QFutureWatcher<Answer>::finished, this, [watcher, guard, shell, tool, ready] {
        const Answer answer = watcher->result();
        watcher->deleteLater();
        if (!guard)
            return;
        if (!answer.help) {
            diag(QStringLiteral("toolCompatibility could not read the options of ") + *tool + QStringLiteral(": ") +
                 answer.error + QStringLiteral("; the command runs as it is"));
            ready(shell);
            return;
        }
        const ToolAdaptation adaptation = ToolOptions::adaptCommand(shell, *answer.help);
        for (const QString& note : adaptation.notes)
            diag(note);
        ready(adaptation.shell);
    });
    const std::shared_ptr<Cache> cache = m_cache;
    watcher->setFuture(QtConcurrent::run([cache, tool = *tool, programWord, workingDir]() -> Answer {
        QString error;
        const QString executable = ToolOptions::resolveExecutable(programWord, workingDir, &error);
        if (executable.isEmpty())
            return {std::nullopt, error};
        const QFileInfo info(executable);
        const QString key = executable + QLatin1Char('@') + QString::number(info.lastModified().toMSecsSinceEpoch()) +
                            QLatin1Char('@') + QString::number(info.size());
        {
            QMutexLocker locker(&cache->lock);
            const auto cached = cache->byExecutable.constFind(key);
            if (cached != cache->byExecutable.cend())
                return {*cached, QString()};
        }
        std::optional<ToolHelp> help = ToolOptions::readToolHelp(tool, executable, &error);
        if (!help)
            return {std::nullopt, error};
        QMutexLocker locker(&cache->lock);
        cache->byExecutable.insert(key, *help);
        return {help, QString()};
    }));
}

} // namespace brinmoor
