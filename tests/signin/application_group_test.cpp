#include "service/signin/application_group.h"
#include "support.h"

#include <gtest/gtest.h>

namespace {

using vt::test::TemporaryFolder;

constexpr const char* kSecurityTask =
    "There was an error creating security task for the hosts service.";
constexpr const char* kMissing =
    "There was an error getting hosts service groups security entitlement.";
constexpr const char* kEmpty = "Hosts service groups security entitlement is empty.";
constexpr const char* kUnknownType =
    "Hosts service groups security entitlement is of unknown type.";

struct EntitlementCase {
    const char* name;
    std::optional<std::string> file;  // nullopt: no entitlements file at all
    std::optional<std::string> group;
    const char* reason;
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const EntitlementCase& c, std::ostream* out) {
    *out << c.name;
}

const EntitlementCase kCases[] = {
    {"NoFile", std::nullopt, std::nullopt, kMissing},
    {"NotJson", "application-groups", std::nullopt, kMissing},
    {"NotAnObject", R"(["com.veldtrack.Veldtrack"])", std::nullopt, kMissing},
    {"NoGroupsMember", R"({"groups": ["com.veldtrack.Veldtrack"]})", std::nullopt, kMissing},
    {"EmptyText", R"({"application-groups": ""})", std::nullopt, kEmpty},
    {"EmptyObject", R"({"application-groups": {}})", std::nullopt, kEmpty},
    {"Null", R"({"application-groups": null})", std::nullopt, kEmpty},
    // The array is not checked for elements: an empty one reads as a first element of unknown type.
    {"EmptyArray", R"({"application-groups": []})", std::nullopt, kUnknownType},
    {"NumberFirst", R"({"application-groups": [7, "com.veldtrack.Veldtrack"]})", std::nullopt,
     kUnknownType},
    {"TextInsteadOfArray", R"({"application-groups": "com.veldtrack.Veldtrack"})", std::nullopt,
     kUnknownType},
    {"ObjectInsteadOfArray", R"({"application-groups": {"a": "b"}})", std::nullopt, kUnknownType},
    {"FirstOfSeveral", R"({"application-groups": ["first.group", "second.group"], "other": 1})",
     "first.group", ""},
};

class ApplicationGroup : public ::testing::TestWithParam<EntitlementCase> {};

TEST_P(ApplicationGroup, IsTheFirstGroupOfTheEntitlementsBesideTheExecutable) {
    const EntitlementCase& c = GetParam();
    TemporaryFolder root;
    const std::filesystem::path executable = root.path() / "veldtrack-hosts-service";
    vt::test::writeFile(executable, "");
    if (c.file) {
        vt::test::writeFile(root.path() / "veldtrack-hosts-service.entitlements", *c.file);
    }
    std::string reason;
    EXPECT_EQ(vt::signin::applicationGroup(executable, &reason), c.group);
    EXPECT_EQ(reason, c.reason);
}

INSTANTIATE_TEST_SUITE_P(Entitlements, ApplicationGroup, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ApplicationGroupOfALink, IsReadBesideTheExecutableItPointsTo) {
    TemporaryFolder root;
    std::filesystem::create_directories(root.path() / "bin");
    vt::test::writeFile(root.path() / "bin" / "veldtrack-hosts-service", "");
    vt::test::writeFile(root.path() / "bin" / "veldtrack-hosts-service.entitlements",
                        R"({"application-groups": ["linked.group"]})");
    std::filesystem::create_symlink(root.path() / "bin" / "veldtrack-hosts-service",
                                    root.path() / "link");
    std::string reason;
    EXPECT_EQ(vt::signin::applicationGroup(root.path() / "link", &reason), "linked.group");
}

TEST(ApplicationGroupOfAMissingExecutable, CannotBeRead) {
    TemporaryFolder root;
    std::string reason;
    EXPECT_EQ(vt::signin::applicationGroup(root.path() / "gone", &reason), std::nullopt);
    EXPECT_EQ(reason, kSecurityTask);
}

}  // namespace
