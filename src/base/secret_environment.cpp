#include "base/secret_environment.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace brinmoor::SecretEnvironment {

void hideFromProcessListings()
{
    for (const char* name : kVariables) {
        char* value = std::getenv(name);
        if (value == nullptr)
            continue;
        // The variable as the process got it: "NAME=value", in the block the kernel shows.
        char* original = value - std::strlen(name) - 1;
        const std::string copy(value);
        // A copy of its own, elsewhere, stands in its place in the environment.
        if (::setenv(name, copy.c_str(), 1) != 0)
            continue;
        std::memset(original, 0, std::strlen(original));
    }
}

} // namespace brinmoor::SecretEnvironment
