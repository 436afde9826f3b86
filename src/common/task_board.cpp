#include "common/task_board.h"

#include <chrono>
#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

#include "common/parallel.h"
#include "common/settings.h"

namespace mixrank {

std::size_t TaskBoard::bytes_per_task() { return sizeof(Task); }

std::size_t TaskBoard::add(std::function<void()> run, std::size_t after)
{
    tasks_.push_back(Task{std::move(run), after, false, false, nullptr});
    return tasks_.size() - 1;
}

void TaskBoard::start()
{
    const std::size_t count = std::min<std::size_t>(thread_count(), tasks_.size());
    try {
        for (std::size_t t = 0; t < count; ++t) workers_.emplace_back([this] { work(); });
    } catch (const std::system_error& e) {
        // Fewer workers do the same work; with none, nothing would run it.
        if (workers_.empty() && !tasks_.empty()) throw RunError(std::string("cannot start a thread: ") + e.what());
    }
}

std::size_t TaskBoard::ready_task() const
{
    for (std::size_t i = untaken_; i < tasks_.size(); ++i) {
        const Task& t = tasks_[i];
        if (!t.taken && (t.after == kNone || tasks_[t.after].done)) return i;
    }
    return kNone;
}

void TaskBoard::work()
{
    std::unique_lock<std::mutex> hold(lock_);
    for (;;) {
        while (untaken_ < tasks_.size() && tasks_[untaken_].taken) ++untaken_;
        if (untaken_ == tasks_.size()) return;
        const std::size_t i = ready_task();
        if (i == kNone) {
            changed_.wait(hold);
            continue;
        }
        Task& task = tasks_[i];
        task.taken = true;
        std::exception_ptr failure = task.after == kNone ? nullptr : tasks_[task.after].failure;
        if (!failure) {
            hold.unlock();
            try {
                task.run();
            } catch (...) {
                failure = std::current_exception();
            }
            hold.lock();
        }
        task.failure = failure;
        task.done = true;
        changed_.notify_all();
    }
}

std::exception_ptr TaskBoard::wait(std::size_t i)
{
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait(hold, [&] { return tasks_[i].done; });
    return tasks_[i].failure;
}

bool TaskBoard::wait_while(std::size_t i, const std::function<bool()>& keep_going, std::exception_ptr& failure)
{
    if (!keep_going) {
        failure = wait(i);
        return true;
    }
    std::unique_lock<std::mutex> hold(lock_);
    while (!changed_.wait_for(hold, std::chrono::milliseconds(100), [&] { return tasks_[i].done; })) {
        hold.unlock();
        const bool go_on = keep_going();
        hold.lock();
        if (!go_on) return false;
    }
    failure = tasks_[i].failure;
    return true;
}

void TaskBoard::stop()
{
    {
        std::lock_guard<std::mutex> hold(lock_);
        for (Task& t : tasks_)
            if (!t.taken) t.taken = t.done = true;
        changed_.notify_all();
    }
    for (std::thread& w : workers_) w.join();
    workers_.clear();
}

}  // namespace mixrank
