#pragma once

#include "config/machine.h"

#include <QMap>
#include <QString>
#include <QVariant>

#include <memory>
#include <optional>

class QSettings;

namespace brinmoor {

// The per-user key-value store that holds every setting of the agent. Values are
// strings, integers or booleans; readers ask for the type they expect.
class SettingsStore {
public:
    virtual ~SettingsStore() = default;

    // The raw stored value; an invalid QVariant when the key is absent.
    virtual QVariant value(const QString& key) const = 0;
    virtual void setValue(const QString& key, const QVariant& value) = 0;
    virtual void remove(const QString& key) = 0;
    // Writes pending changes to permanent storage.
    virtual void sync() = 0;

    bool contains(const QString& key) const { return value(key).isValid(); }
    // The stored text, absent when the key is absent.
    std::optional<QString> string(const QString& key) const;
    // The stored text when present and not empty: how most settings count as "missing".
    std::optional<QString> nonEmptyString(const QString& key) const;
    // An integer value, or text holding a plain decimal integer.
    std::optional<qint64> integer(const QString& key) const;
    // A boolean value, or the text "true"/"false"; absent counts as false.
    bool boolean(const QString& key) const;
};

// Settings kept in memory only, for tests and for a throw-away agent.
class MemorySettingsStore final : public SettingsStore {
public:
    QVariant value(const QString& key) const override { return m_values.value(key); }
    void setValue(const QString& key, const QVariant& value) override { m_values.insert(key, value); }
    void remove(const QString& key) override { m_values.remove(key); }
    void sync() override { ++m_syncCount; }
    // How many times the store was flushed, so tests can see that writers flush.
    int syncCount() const { return m_syncCount; }

private:
    QMap<QString, QVariant> m_values;
    int m_syncCount = 0;
};

// Settings kept by QSettings: the native preferences on macOS, an INI file readable
// only by its owner on Linux.
class QSettingsStore final : public SettingsStore {
public:
    // The store at the given file (INI format), created with mode 0600.
    explicit QSettingsStore(const QString& iniPath);
    ~QSettingsStore() override;

    // The user's own store: on Linux $XDG_CONFIG_HOME (default ~/.config) + the
    // agent's file; on macOS the application's preferences domain.
    static std::unique_ptr<QSettingsStore> standard();
    // Where the standard store lives, for an environment and home folder (Linux).
    static QString standardIniPath(const Environment& env, const QString& home);

    QString fileName() const;
    QVariant value(const QString& key) const override;
    void setValue(const QString& key, const QVariant& value) override;
    void remove(const QString& key) override;
    void sync() override;

private:
    QSettingsStore(std::unique_ptr<QSettings> settings, bool restrictFile);
    void restrictPermissions() const;

    std::unique_ptr<QSettings> m_settings;
    bool m_restrictFile = true;
};

} // namespace brinmoor
