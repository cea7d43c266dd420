#pragma once

// VTMainLoop: the service's main loop. It serves one bus connection itself (processPendingRequest()
// until nothing is left, then poll() on the connection's descriptor), together with an eventfd
// that wakes it, the descriptors others ask it to watch, and work posted from other threads.
// Everything it calls runs on the thread that called run().

#include <sdbus-c++/IConnection.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

class VTMainLoop {
public:
    enum class Ending { stopped, busLost };

    explicit VTMainLoop(sdbus::IConnection& connection);
    ~VTMainLoop();
    VTMainLoop(const VTMainLoop&) = delete;
    VTMainLoop& operator=(const VTMainLoop&) = delete;

    // Serves until stop() or until the connection is lost. `eachRound` runs on the loop's thread
    // once per round, after the events of that round.
    Ending run(const std::function<void()>& eachRound = {});
    // Ends run() after the current round. Any thread.
    void stop();
    // Makes the loop look at the connection again: call it after sending on the connection from
    // another thread, so that a message the socket did not take at once is written on. Any thread.
    void wake();

    // Runs `work` on the loop's thread and returns once it has run: at once when called on that
    // thread, without running it once the loop has ended.
    void runOnLoopThread(const std::function<void()>& work);
    // From now on `onReadable` runs on the loop's thread whenever `fd` is readable. Any thread.
    void watchDescriptor(int fd, std::function<void()> onReadable);

    // After run() has ended: writes what the connection still has queued, waiting at most
    // `limitMilliseconds` for the socket.
    void flush(int limitMilliseconds);

private:
    void runPosted();

    sdbus::IConnection& connection_;
    int wakeFd_ = -1;

    std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<std::function<void()>> work_;
    std::vector<std::pair<int, std::shared_ptr<std::function<void()>>>> watched_;
    bool stopRequested_ = false;
    bool ended_ = false;
    std::thread::id loopThread_;
};
