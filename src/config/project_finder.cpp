#include "config/project_finder.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

#include <algorithm>

namespace brinmoor::ProjectFinder {

namespace {

struct Candidate {
    QString path; // relative to the root
    QString name;
    QString absolute;
    bool link = false;
};

// Whether `path` is the root or lies under it (both canonical).
bool isWithin(const QString& path, const QString& root)
{
    return path == root || path.startsWith(root.endsWith(QLatin1Char('/')) ? root : root + QLatin1Char('/'));
}

// The folders directly under `folder` (hidden ones aside) that stay within the root.
QList<Candidate> foldersUnder(const QString& folder, const QString& prefix, const QString& canonicalRoot)
{
    QList<Candidate> found;
    const QFileInfoList entries = QDir(folder).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::NoSort);
    for (const QFileInfo& entry : entries) {
        const QString canonical = entry.canonicalFilePath();
        // A link is followed only within the root.
        if (canonical.isEmpty() || !isWithin(canonical, canonicalRoot))
            continue;
        found.append({prefix + entry.fileName(), entry.fileName(), canonical, entry.isSymLink()});
    }
    return found;
}

} // namespace

const QStringList& markers()
{
    static const QStringList list{
        QStringLiteral(".git"),           QStringLiteral("package.json"),  QStringLiteral("CMakeLists.txt"),
        QStringLiteral("Makefile"),       QStringLiteral("Cargo.toml"),    QStringLiteral("go.mod"),
        QStringLiteral("pyproject.toml"), QStringLiteral("setup.py"),      QStringLiteral("Package.swift"),
        QStringLiteral("*.xcodeproj"),    QStringLiteral("*.xcworkspace"), QStringLiteral("Gemfile"),
        QStringLiteral("pom.xml"),        QStringLiteral("build.gradle"),  QStringLiteral("build.gradle.kts"),
        QStringLiteral("meson.build"),    QStringLiteral("composer.json"), QStringLiteral("deno.json"),
        QStringLiteral("mix.exs"),        QStringLiteral("*.sln"),
    };
    return list;
}

QStringList markersOf(const QString& folder)
{
    const QStringList names =
        QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::NoSort);
    const QSet<QString> held(names.begin(), names.end());
    QStringList found;
    for (const QString& marker : markers()) {
        if (marker.startsWith(QLatin1Char('*'))) {
            const QString ending = marker.mid(1);
            if (std::any_of(names.begin(), names.end(),
                            [&](const QString& name) { return name.size() > ending.size() && name.endsWith(ending); }))
                found.append(marker);
        } else if (held.contains(marker)) {
            found.append(marker);
        }
    }
    return found;
}

QList<Messages::FoundProject> find(const QString& repoRoot, qsizetype limit)
{
    QList<Messages::FoundProject> projects;
    const QString root = QFileInfo(repoRoot).canonicalFilePath();
    if (repoRoot.isEmpty() || root.isEmpty() || !QFileInfo(root).isDir())
        return projects;
    QList<Candidate> candidates = foldersUnder(root, QString(), root);
    const QFileInfo proj(root + QStringLiteral("/proj"));
    if (proj.isDir() && isWithin(proj.canonicalFilePath(), root))
        candidates += foldersUnder(proj.filePath(), QStringLiteral("proj/"), root);
    std::sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
        const int byName = a.name.compare(b.name, Qt::CaseInsensitive);
        if (byName != 0)
            return byName < 0;
        const int exactly = a.name.compare(b.name);
        return exactly != 0 ? exactly < 0 : a.path < b.path;
    });
    // A folder reached through a link too is listed where it is.
    QSet<QString> seen;
    for (const Candidate& candidate : candidates) {
        if (!candidate.link)
            seen.insert(candidate.absolute);
    }
    QSet<QString> listed;
    for (const Candidate& candidate : candidates) {
        if (projects.size() >= limit)
            break;
        if (listed.contains(candidate.absolute) || (candidate.link && seen.contains(candidate.absolute)))
            continue;
        const QStringList held = markersOf(candidate.absolute);
        if (held.isEmpty())
            continue;
        listed.insert(candidate.absolute);
        projects.append({candidate.path, candidate.name, held});
    }
    return projects;
}

} // namespace brinmoor::ProjectFinder
