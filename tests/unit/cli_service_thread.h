// A thread that serves a thread master, as the client's command-line thread does.
#pragma once

#include "platform/kx_thread.h"

#include <functional>
#include <future>
#include <thread>

class ServiceThread
{
public:
    ServiceThread() : master_(kx_thread_master_create()), thread_([this] { serve(); }) {}
    ServiceThread(const ServiceThread &) = delete;
    ServiceThread &operator=(const ServiceThread &) = delete;
    ~ServiceThread()
    {
        run([this] { stopping_ = true; });
        thread_.join();
        kx_thread_master_finish(master_);
    }

    [[nodiscard]] kx_thread_master_t *master() const { return master_; }

    /// Runs `body` on the thread and waits for it.
    void run(std::function<void()> body)
    {
        std::packaged_task<void()> task(std::move(body));
        std::future<void> done = task.get_future();
        kx_thread_add_event(
            master_,
            [](kx_thread_t *thread) {
                (*static_cast<std::packaged_task<void()> *>(kx_thread_arg(thread)))();
                return 0;
            },
            &task);
        done.wait();
    }

private:
    void serve()
    {
        // A master with nothing to do would end the loop before the first event is queued.
        keep_alive(master_);
        kx_thread_t task{};
        while (!stopping_ && kx_thread_fetch(master_, &task) != nullptr)
            kx_thread_call(&task);
    }

    static void keep_alive(kx_thread_master_t *master)
    {
        constexpr long an_hour = 3600;
        kx_thread_add_timer(
            master, [](kx_thread_t *) { return 0; }, nullptr, an_hour);
    }

    kx_thread_master_t *master_;
    bool stopping_ = false; ///< the thread's own
    std::thread thread_;
};
