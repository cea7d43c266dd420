#include "service/client_queues.h"

#include "transport/http.h"

#include <algorithm>
#include <utility>

#include <pthread.h>

struct VTClientQueues::Worker {
    std::deque<Job> jobs;
    std::condition_variable changed;
    bool retired = false;  // no client any more: end once the queue is empty
    bool finished = false;
    std::thread thread;
};

VTClientQueues::VTClientQueues(std::chrono::milliseconds idleLimit,
                               std::function<void()> workerEnded)
    : idleLimit_(idleLimit), workerEnded_(std::move(workerEnded)) {}

VTClientQueues::~VTClientQueues() {
    stop();
    std::vector<std::shared_ptr<Worker>> all;
    {
        std::lock_guard lock(mutex_);
        for (auto& [client, worker] : workers_) {
            all.push_back(std::move(worker));
        }
        workers_.clear();
        all.insert(all.end(), retired_.begin(), retired_.end());
        retired_.clear();
    }
    for (const auto& worker : all) {
        if (worker->thread.joinable()) {
            worker->thread.join();
        }
    }
}

void VTClientQueues::submit(const std::string& client, Job job) {
    std::unique_lock lock(mutex_);
    if (stopping_) {
        lock.unlock();
        // Dropped: the job's request is answered as it goes away.
        Job dropped = std::move(job);
        return;
    }
    std::shared_ptr<Worker>& worker = workers_[client];
    if (!worker) {
        auto fresh = std::make_shared<Worker>();
        try {
            fresh->thread = std::thread([this, raw = fresh.get(), client] { serve(*raw, client); });
        } catch (...) {
            workers_.erase(client);
            throw;
        }
        worker = std::move(fresh);
    }
    worker->jobs.push_back(std::move(job));
    ++jobs_;
    worker->changed.notify_one();
}

void VTClientQueues::serve(Worker& worker, const std::string& client) {
    pthread_setname_np(pthread_self(), "vt-client");
    std::unique_lock lock(mutex_);
    for (;;) {
        if (!worker.jobs.empty()) {
            Job job = std::move(worker.jobs.front());
            worker.jobs.pop_front();
            lock.unlock();
            {
                // One request: its HTTP exchanges share one deadline, and memory that a large
                // answer held goes back to the system once the job is gone.
                vt::http::RequestScope request;
                try {
                    job();
                } catch (...) {
                    // A job answers its own request; nothing is left to do here.
                }
                // Destroyed outside the lock: destroying a job may answer its request.
                job = nullptr;
            }
            --jobs_;
            lock.lock();
            continue;
        }
        if (worker.retired || stopping_) {
            break;
        }
        if (worker.changed.wait_for(lock, idleLimit_) == std::cv_status::timeout &&
            worker.jobs.empty() && !worker.retired && !stopping_) {
            // Idle for long enough: give the thread back. The client's next job starts a new one.
            auto entry = workers_.find(client);
            if (entry != workers_.end() && entry->second.get() == &worker) {
                retired_.push_back(std::move(entry->second));
                workers_.erase(entry);
            }
            worker.retired = true;
            break;
        }
    }
    worker.finished = true;
    ended_ = true;
    lock.unlock();
    if (workerEnded_) {
        workerEnded_();
    }
}

void VTClientQueues::clientLeft(const std::string& client) {
    std::lock_guard lock(mutex_);
    auto entry = workers_.find(client);
    if (entry == workers_.end()) {
        return;
    }
    entry->second->retired = true;
    entry->second->changed.notify_one();
    retired_.push_back(std::move(entry->second));
    workers_.erase(entry);
}

void VTClientQueues::reap() {
    if (!ended_.exchange(false)) {
        return;
    }
    std::vector<std::shared_ptr<Worker>> finished;
    {
        std::lock_guard lock(mutex_);
        auto split = std::stable_partition(retired_.begin(), retired_.end(),
                                           [](const auto& worker) { return !worker->finished; });
        finished.assign(std::make_move_iterator(split), std::make_move_iterator(retired_.end()));
        retired_.erase(split, retired_.end());
    }
    for (const auto& worker : finished) {
        worker->thread.join();
    }
}

void VTClientQueues::stop() {
    std::vector<Job> dropped;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        auto collect = [&dropped](Worker& worker) {
            for (Job& job : worker.jobs) {
                dropped.push_back(std::move(job));
            }
            worker.jobs.clear();
            worker.changed.notify_one();
        };
        for (auto& [client, worker] : workers_) {
            collect(*worker);
        }
        for (auto& worker : retired_) {
            collect(*worker);
        }
    }
    jobs_ -= dropped.size();
    // `dropped` goes away here, outside the lock: each job answers its request as it is destroyed.
}

std::size_t VTClientQueues::clientCount() const {
    std::lock_guard lock(mutex_);
    return workers_.size();
}
