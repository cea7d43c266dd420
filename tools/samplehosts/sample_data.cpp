#include "samplehosts/sample_data.h"

#include "samplehosts/text.h"

#include <algorithm>
#include <cstdio>

namespace vt::sample {

KeyRing::KeyRing(int count, const Seed& seed) {
    constexpr std::time_t kDay = 24 * 60 * 60;
    for (int index = 0; index < std::max(0, count); ++index) {
        SshKey key;
        key.id = seed.firstId + index;
        const auto real = static_cast<std::size_t>(index);
        if (real < seed.realKeys.size()) {
            key.title = seed.realKeys[real].first;
            key.key = seed.realKeys[real].second;
        } else {
            char number[16];
            std::snprintf(number, sizeof number, "%02d",
                          index - static_cast<int>(seed.realKeys.size()) + 1);
            key.title = std::string(seed.madeUpTitle) + number;
            key.key =
                madeUpKey(static_cast<std::uint64_t>(seed.firstId + index), seed.madeUpComment);
        }
        key.created = seed.newest - index * seed.daysApart * kDay - index * 3607;
        keys_.push_back(std::move(key));
    }
    nextId_ = seed.firstId + std::max(0, count);
}

KeyRing::Outcome KeyRing::add(std::string title, std::string key) {
    if (!isPublicKey(key)) {
        return Outcome::invalid;
    }
    for (const SshKey& existing : keys_) {
        if (keyBody(existing.key) == keyBody(key)) {
            return Outcome::taken;
        }
    }
    keys_.push_back(SshKey{nextId_++, std::move(title), std::move(key), std::time(nullptr)});
    return Outcome::added;
}

bool KeyRing::remove(std::string_view id) {
    for (auto key = keys_.begin(); key != keys_.end(); ++key) {
        if (std::to_string(key->id) == id) {
            keys_.erase(key);
            return true;
        }
    }
    return false;
}

std::vector<std::string> assigneesOf(int count, std::span<const std::string_view> people,
                                     int seed) {
    std::vector<std::string> assignees;
    for (int index = 0; index < count; ++index) {
        if (static_cast<std::size_t>(index) < people.size()) {
            assignees.emplace_back(people[static_cast<std::size_t>(seed + index) % people.size()]);
        } else {
            char name[32];
            std::snprintf(name, sizeof name, "contributor-%03d",
                          index - static_cast<int>(people.size()) + 1);
            assignees.emplace_back(name);
        }
    }
    return assignees;
}

std::vector<std::pair<std::string, std::string>> labelsOf(int count, Pairs pool, int seed,
                                                          std::string_view extraName,
                                                          std::string_view colorPrefix) {
    std::vector<std::pair<std::string, std::string>> labels;
    for (int index = 0; index < count; ++index) {
        if (static_cast<std::size_t>(index) < pool.size()) {
            const auto& [name, color] = pool[static_cast<std::size_t>(seed + index) % pool.size()];
            labels.emplace_back(name, color);
        } else {
            char number[16];
            std::snprintf(number, sizeof number, "%02d", index - static_cast<int>(pool.size()));
            labels.emplace_back(
                std::string(extraName) + number,
                std::string(colorPrefix) + hexDigits(static_cast<std::uint64_t>(index), 6));
        }
    }
    return labels;
}

std::vector<std::string> participantsOf(std::string_view author, std::string_view viewer,
                                        std::span<const std::string_view> people, int seed) {
    std::vector<std::string> participants{std::string(author), std::string(viewer)};
    for (std::size_t index = static_cast<std::size_t>(seed) + 2;
         participants.size() < 4 && index < static_cast<std::size_t>(seed) + 2 + 2 * people.size();
         ++index) {
        const std::string person(people[index % people.size()]);
        if (std::find(participants.begin(), participants.end(), person) == participants.end()) {
            participants.push_back(person);
        }
    }
    while (participants.size() < 4) {
        participants.push_back(participants[participants.size() % 2]);
    }
    return participants;
}

bool isCommentAt(int item, int comments, int items) {
    return comments > 0 && (item + 1) * comments / items > item * comments / items;
}

const std::string& commitAuthorOf(int commit, const std::vector<std::string>& participants) {
    const int run = (commit / 3) % 4;
    return run == 1 ? participants[3] : run == 3 ? participants[2] : participants[0];
}

}  // namespace vt::sample
