#include "app/sleep_watcher.h"

#import <AppKit/AppKit.h>

namespace brinmoor {

namespace {
id g_sleepObserver = nil;
id g_wakeObserver = nil;
}

SleepWatcher::SleepWatcher(QObject* parent) : QObject(parent)
{
    NSNotificationCenter* center = [[NSWorkspace sharedWorkspace] notificationCenter];
    g_sleepObserver = [center addObserverForName:NSWorkspaceWillSleepNotification
                                          object:nil
                                           queue:[NSOperationQueue mainQueue]
                                      usingBlock:^(NSNotification*) {
                                        onPrepareForSleep(true);
                                      }];
    g_wakeObserver = [center addObserverForName:NSWorkspaceDidWakeNotification
                                         object:nil
                                          queue:[NSOperationQueue mainQueue]
                                     usingBlock:^(NSNotification*) {
                                       onPrepareForSleep(false);
                                     }];
}

SleepWatcher::~SleepWatcher()
{
    NSNotificationCenter* center = [[NSWorkspace sharedWorkspace] notificationCenter];
    [center removeObserver:g_sleepObserver];
    [center removeObserver:g_wakeObserver];
}

} // namespace brinmoor
