#pragma once

// The application group that names the message ports. It stands in the JSON file
// "veldtrack-hosts-service.entitlements" beside the service's executable: the first element of its
// "application-groups" member.

#include <filesystem>
#include <optional>
#include <string>

namespace vt::signin {

inline constexpr const char* kEntitlementsFileName = "veldtrack-hosts-service.entitlements";

// The group of the executable at `executable` (a link such as /proc/self/exe is followed). On
// failure returns nullopt and stores the reason text in `*reason`.
std::optional<std::string> applicationGroup(const std::filesystem::path& executable,
                                            std::string* reason);

}  // namespace vt::signin
