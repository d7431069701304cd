#include "terminal/path_completion.h"

#include <QCollator>
#include <QDir>
#include <QFileInfo>
#include <QLocale>

#include <algorithm>

namespace brinmoor::PathCompletion {

QString firstShellToken(const QString& text)
{
    QString token;
    bool escaped = false;
    QChar quote;
    for (const QChar c : text) {
        if (escaped) {
            token += c;
            escaped = false;
        } else if (c == QLatin1Char('\\')) {
            escaped = true;
        } else if (!quote.isNull()) {
            if (c == quote)
                quote = QChar();
            else
                token += c;
        } else if (c == QLatin1Char('"') || c == QLatin1Char('\'')) {
            quote = c;
        } else if (c == QLatin1Char(' ') || c == QLatin1Char('\t')) {
            break;
        } else {
            token += c;
        }
    }
    return token;
}

QString resolvePath(const QString& path, const QString& base, const QString& home)
{
    if (path.isEmpty())
        return base;
    QString expanded = path;
    if (expanded == QLatin1String("~") || expanded.startsWith(QLatin1String("~/")))
        expanded = home + expanded.mid(1);
    if (!expanded.startsWith(QLatin1Char('/')))
        expanded = base + QLatin1Char('/') + expanded;
    return QDir::cleanPath(expanded);
}

qsizetype pathTokenStart(const QString& text)
{
    qsizetype start = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == QLatin1Char('\\')) {
            ++i; // the next character is literal
        } else if (c == QLatin1Char(' ') || c == QLatin1Char('\t')) {
            start = i + 1;
        }
    }
    return start;
}

QString commonPrefix(const QStringList& items)
{
    if (items.isEmpty())
        return QString();
    QString prefix = items.first();
    while (!prefix.isEmpty() &&
           !std::all_of(items.begin(), items.end(), [&](const QString& item) { return item.startsWith(prefix); }))
        prefix.chop(1);
    return prefix;
}

Completion pathCompletion(const QString& line, qsizetype cursor, const QString& currentDirectory, const QString& home)
{
    const qsizetype clamped = std::clamp<qsizetype>(cursor, 0, line.size());
    const QString before = line.left(clamped);
    Completion completion;
    completion.replacementStart = pathTokenStart(before);
    completion.replacementEnd = clamped;
    QString token = before.mid(completion.replacementStart);
    token.replace(QLatin1String("\\ "), QLatin1String(" "));
    const qsizetype slash = token.lastIndexOf(QLatin1Char('/'));
    const QString directoryPart = slash < 0 ? QString() : token.left(slash + 1);
    const QString prefix = slash < 0 ? token : token.mid(slash + 1);
    completion.replacement = token;

    const QString directory = resolvePath(directoryPart, currentDirectory, home);
    QDir dir(directory);
    if (!dir.exists() || !QFileInfo(directory).isReadable())
        return completion;
    QDir::Filters filters = QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System;
    if (prefix.startsWith(QLatin1Char('.')))
        filters |= QDir::Hidden;
    QStringList names = dir.entryList(filters, QDir::NoSort);
    names.erase(
        std::remove_if(names.begin(), names.end(), [&](const QString& name) { return !name.startsWith(prefix); }),
        names.end());
    // As a file browser orders names: case-insensitive, digits as numbers.
    // The C locale of a service has no collation of its own; English orders as a file
    // browser would.
    const QLocale system = QLocale::system();
    QCollator collator(system.language() == QLocale::C ? QLocale(QLocale::English) : system);
    collator.setNumericMode(true);
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(names.begin(), names.end(),
                     [&](const QString& a, const QString& b) { return collator.compare(a, b) < 0; });
    for (const QString& name : names)
        completion.suggestions.append(QFileInfo(directory + QLatin1Char('/') + name).isDir() ? name + QLatin1Char('/')
                                                                                             : name);
    if (completion.suggestions.isEmpty())
        return completion;
    QString replacement = directoryPart + (completion.suggestions.size() == 1 ? completion.suggestions.first()
                                                                              : commonPrefix(completion.suggestions));
    replacement.replace(QLatin1Char(' '), QLatin1String("\\ "));
    completion.replacement = replacement;
    return completion;
}

QString directoryAfterInput(const QString& input, const QString& currentDirectory, const QString& home)
{
    QString text = input;
    text.replace(QLatin1String("\r\n"), QLatin1String("\n"));
    text.replace(QLatin1Char('\r'), QLatin1Char('\n'));
    QString directory = currentDirectory;
    for (const QString& rawLine : text.split(QLatin1Char('\n'))) {
        const QString line = rawLine.trimmed();
        if (line != QLatin1String("cd") && !line.startsWith(QLatin1String("cd ")))
            continue;
        QString target = firstShellToken(line.mid(2).trimmed());
        if (target.isEmpty())
            target = QStringLiteral("~");
        const QString resolved = resolvePath(target, directory, home);
        if (QFileInfo(resolved).isDir())
            directory = resolved;
    }
    return directory;
}

} // namespace brinmoor::PathCompletion
