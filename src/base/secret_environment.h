#pragma once

namespace brinmoor::SecretEnvironment {

// Variables that carry the relay token; children never inherit them.
inline constexpr const char* kVariables[] = {"BRINMOOR_SHARED_TOKEN", "BRINMOOR_TOKEN"};

// The variables keep their values for this process, but the text the process was started
// with no longer holds them: /proc/PID/environ (and `ps e`) of the agent and of what it
// forks without starting another program (the reaper) show blanks where they were. Call
// it first thing, before any thread or fork.
void hideFromProcessListings();

} // namespace brinmoor::SecretEnvironment
