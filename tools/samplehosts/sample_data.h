#pragma once

// What the sample hosts generate alike: the user's SSH keys, and the people, assignees, labels
// and rhythm of a pull request's conversation.

#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vt::sample {

using Pairs = std::span<const std::pair<std::string_view, std::string_view>>;

struct SshKey {
    std::int64_t id = 0;
    std::string title;
    std::string key;  // "type base64 comment"
    std::time_t created = 0;
};

// The user's SSH keys, as a host keeps them: the real keys first, then made-up ones.
class KeyRing {
public:
    struct Seed {
        Pairs realKeys;                  // title, key text (real OpenSSH public keys)
        std::string_view madeUpTitle;    // followed by the made-up key's number, "01" on
        std::string_view madeUpComment;  // of the made-up keys
        std::int64_t firstId = 1;
        std::time_t newest = 0;  // when the first key was added; each further one earlier
        int daysApart = 90;
    };
    KeyRing(int count, const Seed& seed);

    const std::vector<SshKey>& keys() const { return keys_; }

    enum class Outcome { added, invalid, taken };
    // Adds a key unless its text is no public key or its body (whatever the comment) is taken.
    Outcome add(std::string title, std::string key);
    // Removes the key whose id reads `id`; false when there is none.
    bool remove(std::string_view id);

private:
    std::vector<SshKey> keys_;
    std::int64_t nextId_ = 1;
};

// The first `count` assignees: the people from `seed` on, then "contributor-NNN".
std::vector<std::string> assigneesOf(int count, std::span<const std::string_view> people, int seed);
// The first `count` labels (name, colour): the pool from `seed` on, then `extraName` followed by
// a number, with a made-up colour after `colorPrefix` ("" or "#").
std::vector<std::pair<std::string, std::string>> labelsOf(int count, Pairs pool, int seed,
                                                          std::string_view extraName,
                                                          std::string_view colorPrefix);
// Who takes part in a conversation: the author, the viewer and two more of the people.
std::vector<std::string> participantsOf(std::string_view author, std::string_view viewer,
                                        std::span<const std::string_view> people, int seed);
// Whether item `item` of `items` is one of the `comments` spread evenly among them (the others
// are commits).
bool isCommentAt(int item, int comments, int items);
// Who wrote commit `commit`: runs of three, mostly by the author (participants[0]), some by the
// reviewers.
const std::string& commitAuthorOf(int commit, const std::vector<std::string>& participants);

}  // namespace vt::sample
