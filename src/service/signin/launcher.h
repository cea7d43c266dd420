#pragma once

// Starting the sign-in application: detached, in a session of its own, not waited for.

#include <filesystem>
#include <optional>

#include <sys/types.h>

namespace vt::signin {

// $VELDTRACK_SIGNIN_APP when it is set and not empty, else "VeldtrackSignIn" in the folder of
// `executable` (a link such as /proc/self/exe is followed). nullopt with `*errorNumber` set when
// the executable cannot be resolved.
std::optional<std::filesystem::path> signInApplicationPath(const std::filesystem::path& executable,
                                                           int* errorNumber);

// Starts `program` without arguments and with this process's environment, in a new session, with
// standard input from /dev/null, the default signal mask and dispositions, and no descriptor of
// ours beyond standard output and error. Returns the child's id, or nullopt with `*errorNumber`
// set when the program could not be started (exec failures included).
std::optional<pid_t> launchDetached(const std::filesystem::path& program, int* errorNumber);

// Collects `child` if it has ended, without waiting; true when it is gone.
bool reapIfEnded(pid_t child);

}  // namespace vt::signin
