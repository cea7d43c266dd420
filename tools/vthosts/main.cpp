// vthosts: asks the hosts service on the session bus to talk to a Git host, and prints the reply.

#include "vthosts/bus_caller.h"
#include "vthosts/client.h"

#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    try {
        vt::client::Console console{
            vt::client::Sources{std::cin, ::isatty(STDIN_FILENO) == 1,
                                [](const std::string& name) -> std::optional<std::string> {
                                    const char* value = std::getenv(name.c_str());
                                    if (value == nullptr) {
                                        return std::nullopt;
                                    }
                                    return std::string(value);
                                }},
            std::cout, ::isatty(STDOUT_FILENO) == 1, std::cerr};
        vt::client::BusCaller caller(::isatty(STDERR_FILENO) == 1 ? &std::cerr : nullptr);
        return vt::client::run(
            std::vector<std::string>(argv + 1, argv + argc), console,
            [&caller](const vt::client::Request& request) { return caller(request); });
    } catch (const std::exception& error) {
        std::cerr << "vthosts: " << error.what() << "\n";
        return vt::client::kFailed;
    }
}
