#include "service/signin/message_port.h"
#include "support.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace {

using vt::signin::LocalMessagePort;
using vt::signin::RemoteMessagePort;
using vt::test::ScopedVariable;
using vt::test::TemporaryFolder;

mode_t permissions(const std::filesystem::path& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

bool isSocket(const std::filesystem::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// Binds a datagram socket at `path` and closes it without removing the file, as a process that
// was killed leaves it.
void leaveStaleSocket(const std::filesystem::path& path) {
    vt::signin::UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
}

class MessagePorts : public ::testing::Test {
protected:
    TemporaryFolder root;
    ScopedVariable runtime{"XDG_RUNTIME_DIR", root.path().string()};
};

TEST_F(MessagePorts, AReceivingPortIsASocketOnlyItsOwnerMayUse) {
    std::optional<LocalMessagePort> port = LocalMessagePort::create("group.Host");
    ASSERT_TRUE(port);
    EXPECT_EQ(port->path(), root.path() / "group.Host");
    EXPECT_TRUE(isSocket(port->path()));
    EXPECT_EQ(permissions(port->path()), 0600);
}

TEST_F(MessagePorts, AMessageSentToAPortArrivesWholeAndInOrder) {
    std::optional<LocalMessagePort> port = LocalMessagePort::create("group.Host");
    ASSERT_TRUE(port);
    std::optional<RemoteMessagePort> remote = RemoteMessagePort::connect("group.Host");
    ASSERT_TRUE(remote);
    EXPECT_EQ(remote->send("first", std::chrono::seconds(1)), vt::signin::kMessagePortSuccess);
    EXPECT_EQ(remote->send("second", std::chrono::seconds(1)), vt::signin::kMessagePortSuccess);
    EXPECT_EQ(port->receive(), "first");
    EXPECT_EQ(port->receive(), "second");
    EXPECT_EQ(port->receive(), std::nullopt);
}

TEST_F(MessagePorts, ADatagramLongerThanAMessageMayBeIsDroppedWithoutHarm) {
    std::optional<LocalMessagePort> port = LocalMessagePort::create("group.Host");
    ASSERT_TRUE(port);
    std::optional<RemoteMessagePort> remote = RemoteMessagePort::connect("group.Host");
    ASSERT_TRUE(remote);
    const std::string huge(vt::signin::kMaximumMessageSize + 1, 'x');
    ASSERT_EQ(remote->send(huge, std::chrono::seconds(1)), vt::signin::kMessagePortSuccess);
    ASSERT_EQ(remote->send("after", std::chrono::seconds(1)), vt::signin::kMessagePortSuccess);
    EXPECT_EQ(port->receive(), "");
    EXPECT_EQ(port->receive(), "after");
}

TEST_F(MessagePorts, ASocketFileNobodyServesIsReplaced) {
    leaveStaleSocket(root.path() / "group.Host");
    std::optional<LocalMessagePort> port = LocalMessagePort::create("group.Host");
    ASSERT_TRUE(port);
    std::optional<RemoteMessagePort> remote = RemoteMessagePort::connect("group.Host");
    ASSERT_TRUE(remote);
    EXPECT_EQ(remote->send("hello", std::chrono::seconds(1)), vt::signin::kMessagePortSuccess);
    EXPECT_EQ(port->receive(), "hello");
}

TEST_F(MessagePorts, APortSomeoneServesIsNotTakenOver) {
    std::optional<LocalMessagePort> first = LocalMessagePort::create("group.Host");
    ASSERT_TRUE(first);
    EXPECT_FALSE(LocalMessagePort::create("group.Host"));
    EXPECT_EQ(errno, EADDRINUSE);
    std::optional<RemoteMessagePort> remote = RemoteMessagePort::connect("group.Host");
    ASSERT_TRUE(remote);
    EXPECT_EQ(remote->send("still mine", std::chrono::seconds(1)), vt::signin::kMessagePortSuccess);
    EXPECT_EQ(first->receive(), "still mine");
}

TEST_F(MessagePorts, AFileThatIsNoSocketIsLeftAlone) {
    vt::test::writeFile(root.path() / "group.Host", "user data");
    EXPECT_FALSE(LocalMessagePort::create("group.Host"));
    EXPECT_EQ(vt::test::readLines(root.path() / "group.Host"),
              std::vector<std::string>{"user data"});
}

TEST_F(MessagePorts, APortRemovesItsSocketFileWhenItGoesAway) {
    {
        std::optional<LocalMessagePort> port = LocalMessagePort::create("group.Host");
        ASSERT_TRUE(port);
    }
    EXPECT_FALSE(std::filesystem::exists(root.path() / "group.Host"));
    EXPECT_FALSE(RemoteMessagePort::connect("group.Host"));
}

TEST_F(MessagePorts, SendStatusesAreThoseOfMessagePorts) {
    EXPECT_FALSE(RemoteMessagePort::connect("nobody.SignIn")) << "no port while nobody is bound";

    std::optional<LocalMessagePort> port = LocalMessagePort::create("group.SignIn");
    ASSERT_TRUE(port);
    std::optional<RemoteMessagePort> remote = RemoteMessagePort::connect("group.SignIn");
    ASSERT_TRUE(remote);
    // A receiver that reads nothing fills up; then a send gives up after its time-out.
    int status = vt::signin::kMessagePortSuccess;
    for (int sent = 0; sent < 1000 && status == vt::signin::kMessagePortSuccess; ++sent) {
        status = remote->send("filler", std::chrono::milliseconds(20));
    }
    EXPECT_EQ(status, vt::signin::kMessagePortSendTimeout);

    port.reset();
    EXPECT_EQ(remote->send("gone", std::chrono::milliseconds(20)),
              vt::signin::kMessagePortIsInvalid);
}

class FallbackFolder : public ::testing::Test {
protected:
    TemporaryFolder root;
    ScopedVariable runtime{"XDG_RUNTIME_DIR", std::nullopt};
    ScopedVariable temporary{"TMPDIR", root.path().string()};
    std::filesystem::path folder = root.path() / ("veldtrack-" + std::to_string(::getuid()));
};

TEST_F(FallbackFolder, IsMadePrivateInTheTemporaryFolder) {
    std::optional<LocalMessagePort> port = LocalMessagePort::create("group.Host");
    ASSERT_TRUE(port);
    EXPECT_EQ(port->path(), folder / "group.Host");
    EXPECT_EQ(permissions(folder), 0700);
    EXPECT_EQ(permissions(port->path()), 0600);
}

TEST_F(FallbackFolder, AnExistingFolderOfOursIsClosedToOthers) {
    std::filesystem::create_directory(folder);
    ::chmod(folder.c_str(), 0755);
    EXPECT_EQ(vt::signin::messagePortFolder(), folder);
    EXPECT_EQ(permissions(folder), 0700);
}

TEST_F(FallbackFolder, ALinkInItsPlaceIsRefused) {
    std::filesystem::create_directory(root.path() / "elsewhere");
    std::filesystem::create_directory_symlink(root.path() / "elsewhere", folder);
    EXPECT_EQ(vt::signin::messagePortFolder(), std::nullopt);
    EXPECT_FALSE(LocalMessagePort::create("group.Host"));
}

TEST(Messages, AreOneJsonObjectWithTheSelectorAndTheArgumentWhenThereIsOne) {
    EXPECT_EQ(boost::json::parse(vt::signin::encodeMessage("quit")),
              boost::json::parse(R"({"VTMessageSelector":"quit"})"));
    EXPECT_EQ(boost::json::parse(vt::signin::encodeMessage(
                  "showSignIn:", boost::json::object{{"identifier", "github.com"}, {"name", ""}})),
              boost::json::parse(R"({"VTMessageSelector":"showSignIn:",
                                     "VTMessageArgument":{"identifier":"github.com","name":""}})"));
}

TEST(Messages, DecodeOnlyAnObjectWithAStringSelector) {
    struct Case {
        const char* data;
        bool decodes;
    };
    const Case cases[] = {
        {"", false},
        {"not json", false},
        {R"(["VTMessageSelector"])", false},
        {R"({"VTMessageArgument":{}})", false},
        {R"({"VTMessageSelector":5})", false},
        {R"({"VTMessageSelector":"signInLaunched"} trailing)", false},
        {R"({"VTMessageSelector":"signInLaunched"})", true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(vt::signin::decodeMessage(c.data).has_value(), c.decodes) << c.data;
    }
    std::optional<vt::signin::Message> message = vt::signin::decodeMessage(
        R"({"VTMessageSelector":"receiveCredentials:","VTMessageArgument":{"a":"b"}})");
    ASSERT_TRUE(message);
    EXPECT_EQ(message->selector, "receiveCredentials:");
    EXPECT_EQ(message->argument, boost::json::value(boost::json::object{{"a", "b"}}));
    EXPECT_EQ(vt::signin::decodeMessage(R"({"VTMessageSelector":"quit"})")->argument, std::nullopt);
}

}  // namespace
