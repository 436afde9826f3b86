// A fixed list of tasks run on worker threads while the calling thread
// waits for their results in its own order. Tasks are taken in list order;
// a task that needs an earlier one is passed over until that one is done.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

namespace mixrank {

class TaskBoard {
public:
    static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

    TaskBoard() = default;
    TaskBoard(const TaskBoard&) = delete;
    TaskBoard& operator=(const TaskBoard&) = delete;
    ~TaskBoard() { stop(); }

    // Memory the board holds for one task, besides what its function holds.
    static std::size_t bytes_per_task();

    // Adds a task before start(); `after` is the index of an earlier task it
    // needs, or kNone. A task whose needed task failed does not run and
    // fails the same way. Returns the task's index.
    std::size_t add(std::function<void()> run, std::size_t after = kNone);

    // Starts up to thread_count() workers (no more than there are tasks);
    // fewer when a thread cannot be started. RunError ("cannot start a
    // thread: ...") when not one can.
    void start();

    // Waits until task i is done and returns how it failed (null if not).
    std::exception_ptr wait(std::size_t i);

    // wait(), but keep_going is called (on the calling thread) about every
    // tenth of a second meanwhile; when it returns false, the waiting ends
    // and false is returned (failure untouched).
    bool wait_while(std::size_t i, const std::function<bool()>& keep_going, std::exception_ptr& failure);

    // Drops the tasks no worker has taken and waits for the others.
    void stop();

private:
    struct Task {
        std::function<void()> run;
        std::size_t after = kNone;
        bool taken = false, done = false;
        std::exception_ptr failure;
    };
    void work();
    // The first task not taken whose needed task is done; kNone when there
    // is none now.
    std::size_t ready_task() const;

    std::vector<Task> tasks_;
    std::vector<std::thread> workers_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::size_t untaken_ = 0;  // every task before this one is taken
};

}  // namespace mixrank
