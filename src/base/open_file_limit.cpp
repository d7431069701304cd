#include "base/open_file_limit.h"

#include <sys/resource.h>

#include <climits>

namespace brinmoor {

long raiseOpenFileLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return -1;
    rlim_t wanted = limit.rlim_max;
#ifdef __APPLE__
    // macOS refuses a soft limit above OPEN_MAX even when the hard one is unlimited.
    if (wanted == RLIM_INFINITY || wanted > OPEN_MAX)
        wanted = OPEN_MAX;
#endif
    if (limit.rlim_cur < wanted) {
        limit.rlim_cur = wanted;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        ::getrlimit(RLIMIT_NOFILE, &limit);
    }
    return limit.rlim_cur == RLIM_INFINITY ? LONG_MAX : long(limit.rlim_cur);
}

} // namespace brinmoor
