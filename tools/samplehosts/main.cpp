// vt-sample-hosts: serves the sample hosts on loopback ports until SIGINT or SIGTERM.

#include "samplehosts/sample_bitbucket.h"
#include "samplehosts/sample_github.h"

#include <signal.h>

#include <charconv>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>

namespace {

constexpr std::string_view kUsage = R"(Usage: vt-sample-hosts [OPTIONS]
Serves a sample GitHub and a sample Bitbucket on 127.0.0.1 (an ephemeral port each) until
interrupted, and prints the ports and the VELDTRACK_CONNECT_TO value that routes their names
(api.github.test; bitbucket.test and api.bitbucket.test) to them.

The signed-in user is mara-lindqvist; the open pull requests are those of
http://github.test/openkiln/kiln. The only token it accepts is the public demo text
"sample-github-demo-token"; give it to vthosts through VELDTRACK_TOKEN or --token-file.

Options (the size of the sample):
  --pull-requests N   open pull requests of openkiln/kiln (default 6)
  --assignees N       assignees of every pull request (default 2)
  --labels N          labels of every pull request (default 3)
  --comments N        comments of every pull request (default 6)
  --commits N         commits of every pull request (default 9)
  --ssh-keys N        SSH keys of the user (default 3)
  --delay-ms N        milliseconds added to every answer (default 0)
  --help              show this help

The sample Bitbucket (web host bitbucket.test, API api.bitbucket.test, both routed by the same
VELDTRACK_CONNECT_TO) has the user mara-lindqvist in the workspaces tidewater, northwind-tools,
harbour-ops and lakeside-labs, and the open pull requests of
http://bitbucket.test/tidewater/tilestream. It takes the Bearer token
"sample-bitbucket-demo-token", renews the expired "sample-bitbucket-expired-token" once with the
refresh token "sample-bitbucket-refresh-token" for the OAuth client
"veldtrack-demo-bitbucket-client" (secret "veldtrack-demo-bitbucket-secret"), and takes Basic
sign-ins with the e-mail address mara@example.org and the API token "sample-bitbucket-api-token".
All of these are public demonstration values. Its size:
  --bitbucket-pull-requests N   open pull requests of tidewater/tilestream (default 6)
  --bitbucket-comments N        comments of every pull request, replies included (default 10)
  --bitbucket-commits N         commits of every pull request (default 9)
  --bitbucket-diffstat-files N  files of every pull request's diffstat (default 240)
  --bitbucket-repositories N    repositories of harbour-ops beside the named ones (default 0)
  --bitbucket-ssh-keys N        SSH keys of the user (default 3)
)";

bool readCount(std::string_view text, int& count) {
    auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), count);
    return fault == std::errc() && end == text.data() + text.size() && count >= 0 &&
           count <= 1000000;
}

}  // namespace

int main(int argc, char** argv) {
    vt::sample::GitHubScale scale;
    vt::sample::BitbucketScale bitbucketScale;
    int delay = 0;
    const std::pair<std::string_view, int*> options[] = {
        {"--pull-requests", &scale.pullRequests},
        {"--assignees", &scale.assignees},
        {"--labels", &scale.labels},
        {"--comments", &scale.comments},
        {"--commits", &scale.commits},
        {"--ssh-keys", &scale.sshKeys},
        {"--delay-ms", &delay},
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
    bitbucketScale.delay = scale.delay;

    // Blocked before the host's threads start, so that only the wait below takes the signals.
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    sigaddset(&stopping, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);

    try {
        vt::sample::SampleGitHub github(scale);
        vt::sample::SampleBitbucket bitbucket(bitbucketScale);
        std::cout << "Sample GitHub (user mara-lindqvist) listening on 127.0.0.1:" << github.port()
                  << "\nVELDTRACK_CONNECT_TO=" << github.connectTo() << "," << bitbucket.connectTo()
                  << "\nRepository with open pull requests: " << vt::sample::kSampleGitHubRepository
                  << " (newest #" << github.newestPullRequest() << ", from a fork #"
                  << github.forkPullRequest() << ")\n";
        std::cout << "Sample Bitbucket (user mara-lindqvist) listening on 127.0.0.1:"
                  << bitbucket.port() << "\nBitbucket repository with open pull requests: "
                  << vt::sample::kSampleBitbucketRepository << " (newest #"
                  << bitbucket.newestPullRequest() << ", from a fork #"
                  << bitbucket.forkPullRequest() << ", with a conflict #"
                  << bitbucket.conflictPullRequest() << ")\n";
        std::cout << "Press Ctrl-C to stop." << std::endl;
        int received = 0;
        sigwait(&stopping, &received);
        std::cout << "vt-sample-hosts: stopping (" << strsignal(received) << ")" << std::endl;
    } catch (const std::exception& error) {
        std::cerr << "vt-sample-hosts: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
