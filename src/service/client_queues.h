#pragma once

// VTClientQueues: one serial queue per client. A client's jobs run one at a time, in the order they
// were submitted, on a worker thread of that client's own; different clients' jobs run at the same
// time. A worker ends when its client leaves the bus or after it has been idle for a while, and a
// new one starts with the client's next job. When a client leaves, its queued jobs that may be
// dropped are dropped; the others, and a job already running, still run.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

class VTClientQueues {
public:
    // A job must answer its own request; an exception it lets out is dropped.
    using Job = std::function<void()>;

    // `workerEnded` is called on a worker's thread when it has ended, so that its owner calls
    // reap() soon.
    VTClientQueues(std::chrono::milliseconds idleLimit, std::function<void()> workerEnded);
    // Stops (see stop()) and waits for every running job.
    ~VTClientQueues();
    VTClientQueues(const VTClientQueues&) = delete;
    VTClientQueues& operator=(const VTClientQueues&) = delete;

    // Queues `job` behind the client's earlier jobs. With an `onDrop`, the job is dropped if its
    // client leaves before it starts: `onDrop` then runs in its place, and the job is destroyed
    // without running. Without one, the job runs all the same. Throws when no worker thread can
    // be started.
    void submit(const std::string& client, Job job, Job onDrop = {});
    // The client has left: its queued jobs that may be dropped are dropped (on the calling
    // thread); its worker finishes the others, then ends.
    void clientLeft(const std::string& client);
    // Joins the workers that have ended.
    void reap();
    // Drops the jobs not yet started (destroying them) and takes no more; running jobs go on.
    void stop();

    // Clients that have a worker.
    std::size_t clientCount() const;
    // Jobs queued or running.
    std::size_t jobCount() const { return jobs_.load(); }

private:
    struct Queued {
        Job job;
        Job onDrop;
    };
    struct Worker;
    void serve(Worker& worker, const std::string& client);

    const std::chrono::milliseconds idleLimit_;
    const std::function<void()> workerEnded_;

    mutable std::mutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<Worker>> workers_;
    // Workers without a client any more, until they are joined.
    std::vector<std::shared_ptr<Worker>> retired_;
    bool stopping_ = false;

    std::atomic<std::size_t> jobs_{0};
    std::atomic<bool> ended_{false};
};
