#include "service/signin/launcher.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <system_error>

extern char** environ;

namespace vt::signin {

namespace {

// Owners of the spawn attribute and file action objects.
struct SpawnAttributes {
    posix_spawnattr_t value;
    int status = posix_spawnattr_init(&value);
    ~SpawnAttributes() {
        if (status == 0) {
            posix_spawnattr_destroy(&value);
        }
    }
};

struct SpawnActions {
    posix_spawn_file_actions_t value;
    int status = posix_spawn_file_actions_init(&value);
    ~SpawnActions() {
        if (status == 0) {
            posix_spawn_file_actions_destroy(&value);
        }
    }
};

}  // namespace

std::optional<std::filesystem::path> signInApplicationPath(const std::filesystem::path& executable,
                                                           int* errorNumber) {
    const char* chosen = std::getenv("VELDTRACK_SIGNIN_APP");
    if (chosen != nullptr && *chosen != '\0') {
        return std::filesystem::path(chosen);
    }
    std::error_code failure;
    const std::filesystem::path resolved = std::filesystem::canonical(executable, failure);
    if (failure) {
        *errorNumber = failure.value();
        return std::nullopt;
    }
    return resolved.parent_path() / "VeldtrackSignIn";
}

std::optional<pid_t> launchDetached(const std::filesystem::path& program, int* errorNumber) {
    SpawnAttributes attributes;
    SpawnActions actions;
    if (attributes.status != 0 || actions.status != 0) {
        *errorNumber = attributes.status != 0 ? attributes.status : actions.status;
        return std::nullopt;
    }
    // The service blocks SIGTERM and reads it from a descriptor; the sign-in application must start
    // with every signal unblocked and at its default action.
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    int status = posix_spawnattr_setsigmask(&attributes.value, &none);
    if (status == 0) {
        status = posix_spawnattr_setsigdefault(&attributes.value, &all);
    }
    if (status == 0) {
        status = posix_spawnattr_setflags(
            &attributes.value, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    if (status == 0) {
        status = posix_spawn_file_actions_addopen(&actions.value, 0, "/dev/null", O_RDONLY, 0);
    }
    if (status == 0) {
        status = posix_spawn_file_actions_addclosefrom_np(&actions.value, 3);
    }
    if (status != 0) {
        *errorNumber = status;
        return std::nullopt;
    }
    // Nothing but the program's own path goes on its command line.
    std::string path = program.native();
    char* arguments[] = {path.data(), nullptr};
    pid_t child = 0;
    status =
        posix_spawn(&child, path.c_str(), &actions.value, &attributes.value, arguments, environ);
    if (status != 0) {
        *errorNumber = status;
        return std::nullopt;
    }
    return child;
}

bool reapIfEnded(pid_t child) {
    int status = 0;
    const pid_t result = ::waitpid(child, &status, WNOHANG);
    return result == child || (result < 0 && errno == ECHILD);
}

}  // namespace vt::signin
