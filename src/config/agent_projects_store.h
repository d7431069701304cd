#pragma once

#include "config/machine.h"

#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor {

class SettingsStore;

// The project folders offered to the phone: the user's chosen folders (settings
// key "projects", comma-separated) and the projects found in the create-project root.
namespace AgentProjectsStore {

// The configured folders that hold a project, sorted.
QStringList loadConfigured(const SettingsStore& defaults, const Environment& env);
// Normalises the list, stores it under "projects" and flushes the store.
void save(const QStringList& paths, SettingsStore& defaults);
// Trimmed, without empty entries or duplicates, sorted in plain string order.
QStringList normalize(const QStringList& paths);
// `normalize`, keeping only folders that hold a project.
QStringList normalizeExisting(const QStringList& paths);
// Whether an existing folder is a project: an Xcode project or workspace at its top
// level, or a Package.swift.
bool holdsProject(const QString& path);
// Whether the folder's top level has an entry ending in .xcodeproj or .xcworkspace.
bool containsXcodeProject(const QString& path);
// The project folders directly inside the root (hidden entries skipped).
QStringList discoverProjects(const std::optional<QString>& root);
// The path after the last output line that begins with the success prefix.
std::optional<QString> managedProjectPath(const QString& taskOutput, const QString& successPrefix);

} // namespace AgentProjectsStore

// The folder in which new projects are created (settings key "createProjectRoot").
namespace CreateProjectRootStore {

std::optional<QString> load(const SettingsStore& defaults, const Environment& env);
// Stores the trimmed path, or removes the setting for none or empty; flushes.
void save(const std::optional<QString>& path, SettingsStore& defaults);

} // namespace CreateProjectRootStore

} // namespace brinmoor
