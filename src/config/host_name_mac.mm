#include "config/host_name.h"

#import <Foundation/Foundation.h>

namespace brinmoor {

QString localizedHostName()
{
    @autoreleasepool {
        NSString* name = [[NSHost currentHost] localizedName];
        return name ? QString::fromNSString(name) : QString();
    }
}

} // namespace brinmoor
