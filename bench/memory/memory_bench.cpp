// The resident set around large and hostile answers, as one service request sees them: the GitHub
// adapter reads repositories from one 20 MB page, a gzip answer inflating past the body bound, and
// a 502 whose HTML page is 20 MB. Each runs inside a RequestScope, as the service runs a request.
//
// The host is a fake host in a child process, so that its copies of the answers do not count.
// For each case the program prints the resident set before (VmRSS), the peak while it ran
// (VmHWM, reset through /proc/self/clear_refs before the case) and the resident set once the
// request is over, all in MiB, with the answer's size on the wire and after decoding.
//
//     build/bench/memory/vt_bench_memory

#include "fakehost/fake_host.h"
#include "hosts/github/github_host.h"
#include "transport/http.h"
#include "transport_support.h"

#include <sys/wait.h>
#include <unistd.h>
#include <boost/url/parse.hpp>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

namespace {

using vt::fake::FakeHost;
using vt::fake::Request;
using vt::fake::Response;

constexpr std::size_t kPageBytes = 20'000'000;

// One page of repositories of about kPageBytes.
std::string repositoriesPage() {
    std::string nodes;
    for (int index = 0; nodes.size() < kPageBytes; ++index) {
        const std::string name = "repository-" + std::to_string(index);
        nodes += std::string(nodes.empty() ? "" : ",") +
                 R"({"owner":{"login":"octo","name":"Octo Cat","avatarUrl":)"
                 R"("https://avatars.example/u/1","id":"U_1"},"name":")" +
                 name +
                 R"(","isPrivate":false,"description":"A repository that a host made up )"
                 R"(to fill a page; its text is about as long as a real one.",)"
                 R"("updatedAt":"2024-03-05T10:11:12Z","parent":null,)"
                 R"("watchers":{"totalCount":3},"stargazers":{"totalCount":12},)"
                 R"("forkCount":1,"url":"https://github.example/octo/)" +
                 name + R"(","sshUrl":"git@github.example:octo/)" + name + R"(.git"})";
    }
    return R"({"data":{"viewer":{"login":"octo","repositories":{"nodes":[)" + nodes +
           R"(],"pageInfo":{"endCursor":"c1","hasNextPage":false}}}}})";
}

// Serves the three answers for ever; runs in the child.
[[noreturn]] void serve(int portPipe) {
    FakeHost host;
    const std::string page = repositoriesPage();
    const std::string bomb = vt::faults::gzipped(std::size_t{200} << 20, "");
    const std::string html = "<html>" + std::string(kPageBytes, 'x') + "</html>";
    host.setHandler([&](const Request& request) -> std::optional<Response> {
        if (request.target == "/graphql") {
            return Response::json(page);
        }
        if (request.target == "/bomb") {
            Response response = Response::json(bomb);
            response.headers.emplace_back("Content-Encoding", "gzip");
            return response;
        }
        Response response;
        response.status = 502;
        response.body = html;
        return response;
    });
    const std::uint16_t port = host.port();
    if (::write(portPipe, &port, sizeof port) != sizeof port) {
        std::_Exit(1);
    }
    ::pause();
    std::_Exit(0);
}

long statusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::string prefix = std::string(field) + ":";
    while (std::getline(status, line)) {
        if (line.rfind(prefix, 0) == 0) {
            return std::strtol(line.c_str() + prefix.size(), nullptr, 10);
        }
    }
    return -1;
}

double mib(long kib) {
    return static_cast<double>(kib) / 1024.0;
}

void measure(const char* name, const std::function<std::string()>& request) {
    std::ofstream("/proc/self/clear_refs") << "5";
    const long before = statusKiB("VmRSS");
    std::string outcome;
    {
        vt::http::RequestScope scope;
        outcome = request();
    }
    const long peak = statusKiB("VmHWM");
    const long after = statusKiB("VmRSS");
    std::printf("%-32s before %7.1f  peak %7.1f  after %7.1f MiB   %s\n", name, mib(before),
                mib(peak), mib(after), outcome.c_str());
}

}  // namespace

int main() {
    int ports[2];
    if (::pipe(ports) != 0) {
        return 1;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ports[0]);
        serve(ports[1]);
    }
    ::close(ports[1]);
    std::uint16_t port = 0;
    if (::read(ports[0], &port, sizeof port) != sizeof port) {
        return 1;
    }
    vt::http::initialize();
    const std::string route = "api.github.test:80:127.0.0.1:" + std::to_string(port);
    ::setenv("VELDTRACK_CONNECT_TO", route.c_str(), 1);
    const std::string base = "http://127.0.0.1:" + std::to_string(port);

    VTGitHubHost github(VTUrl(boost::urls::parse_uri("http://github.test/o/r").value()));
    VTToken token{{"token_type", "Bearer"}, {"access_token", "t"}};
    auto repositories = [&] {
        VTError error;
        auto owners = github.repositoriesWithToken(token, &error);
        return owners ? std::to_string(owners->at("octo").at("repositories").as_array().size()) +
                            " repositories from a 20 MB page"
                      : "failed: " + error.description();
    };
    auto fetch = [&](const char* path) {
        return [&, path] {
            VTError error;
            VTHost plain;
            auto answer = plain.jsonGetWithUrl(VTUrl(boost::urls::parse_uri(base + path).value()),
                                               token, nullptr, &error);
            return answer ? std::string("read")
                          : error.domain + " " + std::to_string(error.code) + ", " +
                                std::to_string(error.recoverySuggestion().value_or("").size()) +
                                " bytes of suggestion";
        };
    };

    std::printf("idle: VmRSS %.1f MiB\n", mib(statusKiB("VmRSS")));
    measure("20 MB repositories page", repositories);
    measure("20 MB repositories page again", repositories);
    measure("gzip bomb (200 MiB inflated)", fetch("/bomb"));
    measure("502 with a 20 MB page", fetch("/error"));
    std::printf("idle at the end: VmRSS %.1f MiB\n", mib(statusKiB("VmRSS")));

    ::kill(child, SIGTERM);
    ::waitpid(child, nullptr, 0);
    return 0;
}
