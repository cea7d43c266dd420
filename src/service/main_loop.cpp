#include "service/main_loop.h"

#include <sdbus-c++/Error.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

VTMainLoop::VTMainLoop(sdbus::IConnection& connection) : connection_(connection) {
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        throw std::system_error(errno, std::system_category(), "eventfd");
    }
}

VTMainLoop::~VTMainLoop() {
    ::close(wakeFd_);
}

void VTMainLoop::wake() {
    const std::uint64_t one = 1;
    // A full counter already wakes the loop; nothing else can go wrong with an eventfd.
    [[maybe_unused]] ssize_t written = ::write(wakeFd_, &one, sizeof one);
}

void VTMainLoop::stop() {
    {
        std::lock_guard lock(mutex_);
        stopRequested_ = true;
    }
    wake();
}

void VTMainLoop::watchDescriptor(int fd, std::function<void()> onReadable) {
    {
        std::lock_guard lock(mutex_);
        watched_.emplace_back(fd, std::make_shared<std::function<void()>>(std::move(onReadable)));
    }
    wake();
}

void VTMainLoop::runOnLoopThread(const std::function<void()>& work) {
    std::unique_lock lock(mutex_);
    if (ended_) {
        return;
    }
    if (std::this_thread::get_id() == loopThread_) {
        lock.unlock();
        work();
        return;
    }
    bool done = false;
    work_.emplace_back([&] {
        try {
            work();
        } catch (...) {
            // The caller learns of failure through what `work` left behind.
        }
        std::lock_guard doneLock(mutex_);
        done = true;
        posted_.notify_all();
    });
    lock.unlock();
    wake();
    lock.lock();
    posted_.wait(lock, [&] { return done || ended_; });
}

void VTMainLoop::runPosted() {
    std::deque<std::function<void()>> work;
    {
        std::lock_guard lock(mutex_);
        work.swap(work_);
    }
    for (auto& item : work) {
        item();
    }
}

VTMainLoop::Ending VTMainLoop::run(const std::function<void()>& eachRound) {
    {
        std::lock_guard lock(mutex_);
        loopThread_ = std::this_thread::get_id();
    }
    Ending ending = Ending::stopped;
    std::vector<pollfd> descriptors;
    std::vector<std::pair<int, std::shared_ptr<std::function<void()>>>> watched;
    try {
        for (;;) {
            while (connection_.processPendingRequest()) {
            }
            runPosted();
            if (eachRound) {
                eachRound();
            }
            {
                std::lock_guard lock(mutex_);
                if (stopRequested_) {
                    break;
                }
                watched = watched_;
            }
            // Asked after this round's callbacks, which may have queued messages to write.
            const sdbus::IConnection::PollData bus = connection_.getEventLoopPollData();
            descriptors.assign({pollfd{bus.fd, bus.events, 0}, pollfd{wakeFd_, POLLIN, 0}});
            for (const auto& entry : watched) {
                descriptors.push_back(pollfd{entry.first, POLLIN, 0});
            }
            if (::poll(descriptors.data(), descriptors.size(), bus.getPollTimeout()) < 0) {
                if (errno == EINTR) {
                    continue;
                }
                throw std::system_error(errno, std::system_category(), "poll");
            }
            if (descriptors[1].revents != 0) {
                std::uint64_t count = 0;
                [[maybe_unused]] ssize_t read = ::read(wakeFd_, &count, sizeof count);
            }
            for (std::size_t index = 0; index < watched.size(); ++index) {
                const short events = descriptors[index + 2].revents;
                if ((events & POLLNVAL) != 0) {
                    // Closed behind the loop's back: stop watching it rather than spin.
                    std::lock_guard lock(mutex_);
                    std::erase_if(watched_, [&](const auto& entry) {
                        return entry.second == watched[index].second;
                    });
                } else if (events != 0) {
                    try {
                        (*watched[index].second)();
                    } catch (...) {
                        // A watcher's failure is its own; the loop goes on.
                    }
                }
            }
        }
    } catch (const sdbus::Error&) {
        ending = Ending::busLost;
    }
    {
        std::lock_guard lock(mutex_);
        ended_ = true;
        work_.clear();
        posted_.notify_all();
    }
    return ending;
}

void VTMainLoop::flush(int limitMilliseconds) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMilliseconds);
    try {
        for (;;) {
            while (connection_.processPendingRequest()) {
            }
            const sdbus::IConnection::PollData bus = connection_.getEventLoopPollData();
            if ((bus.events & POLLOUT) == 0) {
                return;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return;
            }
            pollfd descriptor{bus.fd, POLLOUT, 0};
            if (::poll(&descriptor, 1, static_cast<int>(left.count())) < 0 && errno != EINTR) {
                return;
            }
        }
    } catch (const sdbus::Error&) {
        // The bus is gone: nothing more can be written.
    }
}
