// vt-sample-hosts: serves the sample hosts on loopback ports until SIGINT or SIGTERM.

#include "samplehosts/sample_bitbucket.h"
#include "samplehosts/sample_github.h"
#include "samplehosts/sample_gitlab.h"

#include <boost/json/serialize.hpp>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::string_view kUsage = R"(Usage: vt-sample-hosts [OPTIONS]
Serves sample hosts on 127.0.0.1 (an ephemeral port each) until interrupted, and prints their
ports and one VELDTRACK_CONNECT_TO value that routes every host name they answer to them.

GitHub (api.github.test): the signed-in user is mara-lindqvist; the open pull requests are those
of http://github.test/openkiln/kiln. The only token it accepts is the public demo text
"sample-github-demo-token"; give it to vthosts through VELDTRACK_TOKEN or --token-file.

GitLab (gitlab.test): the signed-in user is ines-moreau; the open merge requests are those of
http://gitlab.test/tidewater/tideline. It accepts the public demo text "sample-gitlab-demo-token"
(a personal token that never expires) and the OAuth tokens its token endpoint issues; it renews
them only for the public demo client "veldtrack-demo-gitlab-client" (secret
"veldtrack-demo-gitlab-secret"), which the demonstration's build writes beside the service.

Bitbucket (bitbucket.test, its API at api.bitbucket.test): the signed-in user is mara-lindqvist,
in the workspaces tidewater, northwind-tools, harbour-ops and lakeside-labs; the open pull requests
are those of http://bitbucket.test/tidewater/tilestream. It accepts the Bearer token
"sample-bitbucket-demo-token" and the tokens its token endpoint issues, answers the Bearer token
"sample-bitbucket-expired-token" as expired, and renews it once for the refresh token
"sample-bitbucket-refresh-token" and the client "veldtrack-demo-bitbucket-client" (secret
"veldtrack-demo-bitbucket-secret"), which the demonstration's build writes beside the service.
Basic sign-ins take the e-mail address mara@example.org and the API token
"sample-bitbucket-api-token". All of these are public demonstration values.

Options (the size of the samples):
  --pull-requests N   open pull requests of openkiln/kiln (default 6)
  --assignees N       assignees of every pull request (default 2)
  --labels N          labels of every pull request (default 3)
  --comments N        comments of every pull request (default 6)
  --commits N         commits of every pull request (default 9)
  --ssh-keys N        SSH keys of the user (default 3)
  --delay-ms N        milliseconds added to every answer of every host (default 0)

GitLab:
  --gitlab-merge-requests N  open merge requests of tidewater/tideline (default 105)
  --gitlab-assignees N       assignees of every merge request (default 2)
  --gitlab-labels N          labels of every merge request (default 3)
  --gitlab-discussions N     discussions of every merge request (default 55)
  --gitlab-long-thread N     notes of the long thread in every merge request (default 60)
  --gitlab-commits N         commits of every merge request, one merge commit included
                             (default 12)
  --gitlab-ssh-keys N        SSH keys of the user (default 3)
  --gitlab-token-lifetime N  seconds the issued access tokens live (default 7200)
  --gitlab-token-file FILE   write an OAuth token (JSON, mode 0600) that expires in
                             --gitlab-token-expires-in seconds to FILE, for vthosts --token-file
  --gitlab-token-expires-in N  (default 15)

Bitbucket:
  --bitbucket-pull-requests N   open pull requests of tidewater/tilestream (default 6)
  --bitbucket-comments N        comments of every pull request, replies included (default 10)
  --bitbucket-commits N         commits of every pull request (default 9)
  --bitbucket-diffstat-files N  files of every pull request's diffstat (default 240)
  --bitbucket-repositories N    repositories of harbour-ops beside the named ones (default 0)
  --bitbucket-ssh-keys N        SSH keys of the user (default 3)

  --help              show this help
)";

bool readCount(std::string_view text, int& count) {
    auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), count);
    return fault == std::errc() && end == text.data() + text.size() && count >= 0 &&
           count <= 1000000;
}

// Writes `text` to a new file only its owner may read; false when that fails.
bool writePrivateFile(const std::string& path, const std::string& text) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    bool written = ::fchmod(fd, 0600) == 0;
    for (std::size_t done = 0; written && done < text.size();) {
        const ssize_t count = ::write(fd, text.data() + done, text.size() - done);
        written = count > 0 || (count < 0 && errno == EINTR);
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return ::close(fd) == 0 && written;
}

}  // namespace

int main(int argc, char** argv) {
    vt::sample::GitHubScale scale;
    vt::sample::BitbucketScale bitbucketScale;
    int delay = 0;
    vt::sample::GitLabScale gitlab;
    int gitlabLifetime = static_cast<int>(gitlab.tokenLifetime.count());
    int gitlabExpiresIn = 15;
    std::string gitlabTokenFile;
    const std::pair<std::string_view, int*> options[] = {
        {"--pull-requests", &scale.pullRequests},
        {"--assignees", &scale.assignees},
        {"--labels", &scale.labels},
        {"--comments", &scale.comments},
        {"--commits", &scale.commits},
        {"--ssh-keys", &scale.sshKeys},
        {"--delay-ms", &delay},
        {"--gitlab-merge-requests", &gitlab.mergeRequests},
        {"--gitlab-assignees", &gitlab.assignees},
        {"--gitlab-labels", &gitlab.labels},
        {"--gitlab-discussions", &gitlab.discussions},
        {"--gitlab-long-thread", &gitlab.longThread},
        {"--gitlab-commits", &gitlab.commits},
        {"--gitlab-ssh-keys", &gitlab.sshKeys},
        {"--gitlab-token-lifetime", &gitlabLifetime},
        {"--gitlab-token-expires-in", &gitlabExpiresIn},
        {"--bitbucket-pull-requests", &bitbucketScale.pullRequests},
        {"--bitbucket-comments", &bitbucketScale.comments},
        {"--bitbucket-commits", &bitbucketScale.commits},
        {"--bitbucket-diffstat-files", &bitbucketScale.diffstatFiles},
        {"--bitbucket-repositories", &bitbucketScale.extraRepositories},
        {"--bitbucket-ssh-keys", &bitbucketScale.sshKeys},
    };
    for (int index = 1; index < argc; ++index) {
        const std::string_view argument = argv[index];
        if (argument == "--help") {
            std::cout << kUsage;
            return 0;
        }
        if (argument == "--gitlab-token-file" && index + 1 < argc) {
            gitlabTokenFile = argv[++index];
            continue;
        }
        int* target = nullptr;
        for (const auto& [name, value] : options) {
            if (argument == name) {
                target = value;
            }
        }
        if (target == nullptr || index + 1 >= argc || !readCount(argv[index + 1], *target)) {
            std::cerr << "vt-sample-hosts: "
                      << (target == nullptr
                              ? "unknown option '" + std::string(argument) + "'"
                              : "'" + std::string(argument) + "' needs a count from 0 to 1000000")
                      << "\nRun 'vt-sample-hosts --help' for the options.\n";
            return 2;
        }
        ++index;
    }
    scale.delay = std::chrono::milliseconds(delay);
    gitlab.delay = std::chrono::milliseconds(delay);
    gitlab.tokenLifetime = std::chrono::seconds(gitlabLifetime);
    bitbucketScale.delay = scale.delay;

    // Blocked before the host's threads start, so that only the wait below takes the signals.
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    sigaddset(&stopping, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);

    try {
        std::vector<std::string> routes;
        vt::sample::SampleGitHub github(scale);
        routes.push_back(github.connectTo());
        std::cout << "Sample GitHub (user mara-lindqvist) listening on 127.0.0.1:" << github.port()
                  << "\nRepository with open pull requests: " << vt::sample::kSampleGitHubRepository
                  << " (newest #" << github.newestPullRequest() << ", from a fork #"
                  << github.forkPullRequest() << ")\n";

        vt::sample::SampleGitLab gitlabSample(gitlab);
        routes.push_back(gitlabSample.connectTo());
        std::cout << "Sample GitLab (user ines-moreau) listening on 127.0.0.1:"
                  << gitlabSample.port()
                  << "\nProject with open merge requests: " << vt::sample::kSampleGitLabProject
                  << " (newest !" << gitlabSample.newestMergeRequest() << ", from a fork !"
                  << gitlabSample.forkMergeRequest() << ")\n";
        if (!gitlabTokenFile.empty()) {
            // Issued as long ago as makes it expire when asked: the token is about to expire.
            const auto lifetime = gitlab.tokenLifetime;
            const auto age = lifetime - std::chrono::seconds(gitlabExpiresIn);
            const std::string token = boost::json::serialize(
                gitlabSample.issueToken(lifetime, age.count() > 0 ? age : std::chrono::seconds(0)));
            if (!writePrivateFile(gitlabTokenFile, token + "\n")) {
                std::cerr << "vt-sample-hosts: cannot write '" << gitlabTokenFile
                          << "': " << std::strerror(errno) << "\n";
                return 1;
            }
            std::cout << "GitLab OAuth token written to " << gitlabTokenFile << " (expires in "
                      << gitlabExpiresIn << " s)\n";
        }

        vt::sample::SampleBitbucket bitbucket(bitbucketScale);
        routes.push_back(bitbucket.connectTo());
        std::cout << "Sample Bitbucket (user mara-lindqvist) listening on 127.0.0.1:"
                  << bitbucket.port() << "\nBitbucket repository with open pull requests: "
                  << vt::sample::kSampleBitbucketRepository << " (newest #"
                  << bitbucket.newestPullRequest() << ", from a fork #"
                  << bitbucket.forkPullRequest() << ", with a conflict #"
                  << bitbucket.conflictPullRequest() << ")\n";

        std::string connectTo;
        for (const std::string& route : routes) {
            connectTo += (connectTo.empty() ? "" : ",") + route;
        }
        std::cout << "VELDTRACK_CONNECT_TO=" << connectTo << "\nPress Ctrl-C to stop." << std::endl;
        int received = 0;
        sigwait(&stopping, &received);
        std::cout << "vt-sample-hosts: stopping (" << strsignal(received) << ")" << std::endl;
    } catch (const std::exception& error) {
        std::cerr << "vt-sample-hosts: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
