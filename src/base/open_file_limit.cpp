#include "base/open_file_limit.h"

#include <climits>
#include <sys/resource.h>

namespace brinmoor {

long openFileLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return -1;
    return limit.rlim_cur == RLIM_INFINITY ? LONG_MAX : long(limit.rlim_cur);
}

long raiseOpenFileLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return -1;
    if (limit.rlim_cur != limit.rlim_max) {
        rlimit wanted = limit;
        wanted.rlim_cur = limit.rlim_max;
        if (::setrlimit(RLIMIT_NOFILE, &wanted) != 0) {
#ifdef OPEN_MAX
            // macOS reports an unlimited hard limit but refuses a soft one above OPEN_MAX.
            wanted.rlim_cur = OPEN_MAX;
            if (limit.rlim_cur < OPEN_MAX)
                ::setrlimit(RLIMIT_NOFILE, &wanted);
#endif
        }
    }
    return openFileLimit();
}

} // namespace brinmoor
