#include "terminal/path_completion.h"

#include <QCollator>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>

#include <algorithm>
#include <dirent.h>

namespace brinmoor::PathCompletion {

namespace {

// Whether a surrogate pair (one code point in two UTF-16 units) starts at `i`.
bool pairAt(QStringView text, qsizetype i)
{
    return i >= 0 && i + 1 < text.size() && text[i].isHighSurrogate() && text[i + 1].isLowSurrogate();
}

qsizetype codePointCount(QStringView text)
{
    qsizetype count = 0;
    for (qsizetype i = 0; i < text.size(); i += pairAt(text, i) ? 2 : 1)
        ++count;
    return count;
}

// Where the code point with the given number begins, in UTF-16 units, clamped into
// the text.
qsizetype unitIndex(QStringView text, qint64 codePoints)
{
    qsizetype i = 0;
    for (qint64 n = 0; n < codePoints && i < text.size(); ++n)
        i += pairAt(text, i) ? 2 : 1;
    return i;
}

// The names in a folder but "." and ".."; nothing when it cannot be listed.
std::optional<QStringList> listFolder(const QString& path)
{
    DIR* folder = ::opendir(QFile::encodeName(path).constData());
    if (!folder)
        return std::nullopt;
    QStringList names;
    while (const dirent* entry = ::readdir(folder)) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..")
            names.append(QFile::decodeName(name));
    }
    ::closedir(folder);
    return names;
}

} // namespace

QString firstShellToken(const QString& text)
{
    QString token;
    bool escaped = false;
    bool quoted = false;
    for (const QChar c : text) {
        if (escaped) {
            token += c;
            escaped = false;
        } else if (c == QLatin1Char('\\')) {
            escaped = true;
        } else if (c == QLatin1Char('"') || c == QLatin1Char('\'')) {
            quoted = !quoted;
        } else if (!quoted && (c == QLatin1Char(' ') || c == QLatin1Char('\t'))) {
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
        prefix.chop(pairAt(prefix, prefix.size() - 2) ? 2 : 1);
    return prefix;
}

Completion pathCompletion(const QString& line, std::optional<qint64> cursor, const QString& currentDirectory,
                          const QString& home)
{
    const qsizetype end = cursor ? unitIndex(line, std::max<qint64>(*cursor, 0)) : line.size();
    const QString before = line.left(end);
    const qsizetype start = pathTokenStart(before);
    Completion completion;
    completion.replacementStart = codePointCount(QStringView(before).left(start));
    completion.replacementEnd = codePointCount(before);
    // Until something matches, the word stays as typed.
    completion.replacement = before.mid(start);
    QString token = completion.replacement;
    token.replace(QLatin1String("\\ "), QLatin1String(" "));
    const qsizetype slash = token.lastIndexOf(QLatin1Char('/'));
    const QString directoryPart = slash < 0 ? QString() : token.left(slash + 1);
    const QString prefix = slash < 0 ? token : token.mid(slash + 1);

    const QString directory = resolvePath(directoryPart, currentDirectory, home);
    std::optional<QStringList> listed = listFolder(directory);
    if (!listed)
        return completion;
    const bool withHidden = prefix.startsWith(QLatin1Char('.'));
    QStringList names = std::move(*listed);
    names.erase(std::remove_if(names.begin(), names.end(),
                               [&](const QString& name) {
                                   return !name.startsWith(prefix) ||
                                          (!withHidden && name.startsWith(QLatin1Char('.')));
                               }),
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
