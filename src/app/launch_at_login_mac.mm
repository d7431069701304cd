#include "app/launch_at_login.h"

#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>

namespace brinmoor::LaunchAtLogin {

QString autostartEntryPath(const Environment& env, const QString& home)
{
    Q_UNUSED(env)
    Q_UNUSED(home)
    return QString(); // macOS keeps login items itself
}

QString autostartEntry(const QString& executablePath)
{
    Q_UNUSED(executablePath)
    return QString();
}

bool setEnabled(bool enabled, const Environment& env, const Machine& machine, QString* error)
{
    Q_UNUSED(env)
    Q_UNUSED(machine)
    @autoreleasepool {
        NSError* failure = nil;
        SMAppService* service = [SMAppService mainAppService];
        const BOOL done =
            enabled ? [service registerAndReturnError:&failure] : [service unregisterAndReturnError:&failure];
        if (!done && error)
            *error = QString::fromNSString(failure.localizedDescription ?: @"unknown error");
        return done;
    }
}

} // namespace brinmoor::LaunchAtLogin
