#include "config/agent_projects_store.h"

#include "config/settings_store.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

#include <algorithm>

namespace brinmoor {

namespace {

const QString kProjectsKey = QStringLiteral("projects");
const QString kCreateProjectRootKey = QStringLiteral("createProjectRoot");

} // namespace

namespace AgentProjectsStore {

QStringList loadConfigured(const SettingsStore& defaults, const Environment& env)
{
    // An empty stored list is a list the user emptied, not an absent one.
    std::optional<QString> stored = defaults.string(kProjectsKey);
    if (!stored && env.contains(QStringLiteral("BRINMOOR_PROJECTS")))
        stored = env.value(QStringLiteral("BRINMOOR_PROJECTS"));
    if (!stored)
        return {};

    QStringList paths;
    const QStringList entries = stored->split(QLatin1Char(','), Qt::SkipEmptyParts);
    for (const QString& entry : entries) {
        // "Name=/path" names a folder; only the path counts.
        const QStringList pieces = entry.split(QLatin1Char('='), Qt::SkipEmptyParts);
        if (pieces.size() > 2 || pieces.isEmpty())
            continue;
        const QString path = pieces.last().trimmed();
        if (!path.isEmpty())
            paths.append(path);
    }
    return normalizeExisting(paths);
}

void save(const QStringList& paths, SettingsStore& defaults)
{
    defaults.setValue(kProjectsKey, normalize(paths).join(QLatin1Char(',')));
    defaults.sync();
}

QStringList normalize(const QStringList& paths)
{
    QStringList result;
    QSet<QString> seen;
    for (const QString& path : paths) {
        const QString trimmed = path.trimmed();
        if (trimmed.isEmpty() || seen.contains(trimmed))
            continue;
        seen.insert(trimmed);
        result.append(trimmed);
    }
    std::sort(result.begin(), result.end());
    return result;
}

QStringList normalizeExisting(const QStringList& paths)
{
    QStringList result;
    const QStringList normalized = normalize(paths);
    for (const QString& path : normalized) {
        if (holdsProject(path))
            result.append(path);
    }
    return result;
}

bool holdsProject(const QString& path)
{
    if (!QFileInfo(path).isDir())
        return false;
    return containsXcodeProject(path) || QFileInfo(path + QStringLiteral("/Package.swift")).isFile();
}

bool containsXcodeProject(const QString& path)
{
    const QStringList names =
        QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    return std::any_of(names.begin(), names.end(), [](const QString& name) {
        return name.endsWith(QStringLiteral(".xcodeproj")) || name.endsWith(QStringLiteral(".xcworkspace"));
    });
}

QStringList discoverProjects(const std::optional<QString>& root)
{
    if (!root || !QFileInfo(*root).isDir())
        return {};
    QStringList projects;
    const QFileInfoList children = QDir(*root).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo& child : children) {
        if (child.isDir() && holdsProject(child.filePath()))
            projects.append(child.filePath());
    }
    return projects;
}

std::optional<QString> managedProjectPath(const QString& taskOutput, const QString& successPrefix)
{
    const QStringList lines = taskOutput.split(QLatin1Char('\n'));
    for (auto line = lines.crbegin(); line != lines.crend(); ++line) {
        if (!line->startsWith(successPrefix))
            continue;
        const QString path = line->mid(successPrefix.size()).trimmed();
        if (path.isEmpty())
            return std::nullopt;
        return path;
    }
    return std::nullopt;
}

} // namespace AgentProjectsStore

namespace CreateProjectRootStore {

std::optional<QString> load(const SettingsStore& defaults, const Environment& env)
{
    std::optional<QString> value = defaults.string(kCreateProjectRootKey);
    if (!value && env.contains(QStringLiteral("BRINMOOR_CREATE_PROJECT_ROOT")))
        value = env.value(QStringLiteral("BRINMOOR_CREATE_PROJECT_ROOT"));
    if (!value)
        return std::nullopt;
    const QString trimmed = value->trimmed();
    if (trimmed.isEmpty())
        return std::nullopt;
    return trimmed;
}

void save(const std::optional<QString>& path, SettingsStore& defaults)
{
    const QString trimmed = path.value_or(QString()).trimmed();
    if (trimmed.isEmpty())
        defaults.remove(kCreateProjectRootKey);
    else
        defaults.setValue(kCreateProjectRootKey, trimmed);
    defaults.sync();
}

} // namespace CreateProjectRootStore

} // namespace brinmoor
