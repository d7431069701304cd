#include "config/agent_profile.h"

#include "config/agent_projects_store.h"
#include "config/connection_settings.h"
#include "config/settings_store.h"

#include <QFileInfo>

namespace brinmoor {

QStringList ProfileDefaults::actions()
{
    return {QStringLiteral("build_ios"), QStringLiteral("ai_task"), QStringLiteral("chat"), QStringLiteral("shell"),
            QStringLiteral("terminal_session")};
}

namespace {

QString approverPath(const SettingsStore& defaults, const Environment& env, const Machine& machine)
{
    if (std::optional<QString> configured = settingOrEnvironment(defaults, QStringLiteral("mcpApproverPath"), env,
                                                                 QStringLiteral("BRINMOOR_MCP_APPROVER_PATH")))
        return *configured;
    // The approval tool is built next to the agent; an installed copy lives in ~/.brinmoor.
    const QString besideAgent = QFileInfo(machine.executablePath).absolutePath() + QStringLiteral("/MCPApprovalServer");
    if (!machine.executablePath.isEmpty() && QFileInfo::exists(besideAgent))
        return besideAgent;
    return machine.homeDirectory + QStringLiteral("/.brinmoor/bin/MCPApprovalServer");
}

} // namespace

AgentProfile AgentProfile::load(const SettingsStore& defaults, const Environment& env, const Machine& machine)
{
    const auto setting = [&](const char* key, const char* variable, const QString& fallback) {
        return settingOrEnvironment(defaults, QLatin1String(key), env, QLatin1String(variable)).value_or(fallback);
    };

    AgentProfile profile;
    profile.profileId = setting("profileId", "BRINMOOR_PROFILE_ID", QLatin1String(ProfileDefaults::profileId));
    profile.repoRoot = setting("repoRoot", "BRINMOOR_REPO_ROOT", machine.currentDirectory);
    profile.buildTemplate =
        setting("buildTemplate", "BRINMOOR_BUILD_TEMPLATE", QLatin1String(ProfileDefaults::buildTemplate));
    // The one asymmetry: Claude's template is stored as "chatTemplate".
    profile.claudeChatTemplate =
        setting("chatTemplate", "BRINMOOR_CHAT_TEMPLATE", QLatin1String(ProfileDefaults::claudeChatTemplate));
    profile.codexChatTemplate =
        setting("codexChatTemplate", "BRINMOOR_CODEX_CHAT_TEMPLATE", QLatin1String(ProfileDefaults::codexChatTemplate));
    profile.terminalChatTemplate = setting("terminalChatTemplate", "BRINMOOR_TERMINAL_CHAT_TEMPLATE",
                                           QLatin1String(ProfileDefaults::terminalChatTemplate));
    profile.aiPlanTemplate =
        setting("aiPlanTemplate", "BRINMOOR_AI_PLAN_TEMPLATE", QLatin1String(ProfileDefaults::aiPlanTemplate));
    profile.aiApplyTemplate =
        setting("aiApplyTemplate", "BRINMOOR_AI_APPLY_TEMPLATE", QLatin1String(ProfileDefaults::aiPlanTemplate));
    profile.mcpApproverPath = approverPath(defaults, env, machine);

    profile.createProjectRoot = CreateProjectRootStore::load(defaults, env);
    QStringList projects = AgentProjectsStore::loadConfigured(defaults, env);
    projects.append(AgentProjectsStore::discoverProjects(profile.createProjectRoot));
    profile.projects = AgentProjectsStore::normalizeExisting(projects);
    profile.actions = ProfileDefaults::actions();
    return profile;
}

} // namespace brinmoor
