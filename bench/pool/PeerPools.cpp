#include "pool/Pools.h"

#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Runnable.h>
#include <Poco/ThreadPool.h>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <concepts>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <glib.h>
#include <mutex>
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/task_arena.h>
#include <thread>
#include <uv.h>

namespace Quellan::Corvel::Bench {

namespace {

class Asio : public Pool {
  public:
    Asio(unsigned threads, std::size_t requestors) : m_pool(threads) {
        for (std::size_t i = 0; i < requestors; ++i)
            m_strands.emplace_back(m_pool.get_executor());
    }
    ~Asio() override { m_pool.join(); }
    void Post(const Payload& item) override {
        boost::asio::post(m_pool, [item] { item.run(item); });
    }
    void PostFor(std::size_t requestor, const Payload& item) override {
        boost::asio::post(m_strands[requestor], [item] { item.run(item); });
    }

  private:
    boost::asio::thread_pool m_pool;
    std::vector<boost::asio::strand<boost::asio::thread_pool::executor_type>> m_strands;
};

class Tbb : public Pool {
  public:
    explicit Tbb(unsigned threads)
        : m_limit(oneapi::tbb::global_control::max_allowed_parallelism, threads + 1),
          m_arena(static_cast<int>(threads), 0) {
        m_arena.initialize();
    }
    void Post(const Payload& item) override {
        m_arena.enqueue([item] { item.run(item); });
    }

  private:
    oneapi::tbb::global_control m_limit;
    oneapi::tbb::task_arena m_arena;
};

class PocoPool : public Pool {
  public:
    explicit PocoPool(unsigned threads) : m_pool(static_cast<int>(threads), static_cast<int>(threads)) {
        for (unsigned i = 0; i < threads; ++i)
            m_pool.start(m_worker);
    }
    ~PocoPool() override {
        // Waking all would reach only those that wait already.
        for (int i = 0; i < m_pool.capacity(); ++i)
            Post({});
        m_pool.joinAll();
    }
    void Post(const Payload& item) override { m_queue.enqueueNotification(new Work(item)); }

  private:
    struct Work : Poco::Notification {
        explicit Work(const Payload& i) : item(i) {}
        Payload item;
    };
    struct Worker : Poco::Runnable {
        explicit Worker(Poco::NotificationQueue& q) : queue(q) {}
        void run() override {
            while (const Poco::AutoPtr<Poco::Notification> next = queue.waitDequeueNotification()) {
                const auto& work = static_cast<const Work&>(*next);
                if (!work.item.run) return;
                work.item.run(work.item);
            }
        }
        Poco::NotificationQueue& queue;
    };

    Poco::NotificationQueue m_queue;
    Worker m_worker{m_queue};
    Poco::ThreadPool m_pool;
};

// What one would write without a library.
class Plain : public Pool {
  public:
    explicit Plain(unsigned threads) {
        for (unsigned i = 0; i < threads; ++i)
            m_threads.emplace_back([this] { Run(); });
    }
    ~Plain() override {
        for (std::size_t i = 0; i < m_threads.size(); ++i)
            Post({});
        for (std::thread& thread : m_threads)
            thread.join();
    }
    void Post(const Payload& item) override {
        {
            const std::lock_guard guard(m_lock);
            m_items.push_back(item);
        }
        m_posted.notify_one();
    }

  private:
    void Run() {
        for (;;) {
            std::unique_lock guard(m_lock);
            m_posted.wait(guard, [this] { return !m_items.empty(); });
            const Payload item = m_items.front();
            m_items.pop_front();
            guard.unlock();
            if (!item.run) return;
            item.run(item);
        }
    }

    std::mutex m_lock;
    std::condition_variable m_posted;
    std::deque<Payload> m_items;
    std::vector<std::thread> m_threads;
};

class Glib : public Pool {
  public:
    explicit Glib(unsigned threads)
        : m_pool(g_thread_pool_new(
              [](gpointer data, gpointer) {
                  const std::unique_ptr<Payload> item(static_cast<Payload*>(data));
                  item->run(*item);
              },
              nullptr, static_cast<int>(threads), TRUE, nullptr)) {}
    ~Glib() override { g_thread_pool_free(m_pool, FALSE, TRUE); }
    void Post(const Payload& item) override { g_thread_pool_push(m_pool, new Payload(item), nullptr); }

  private:
    GThreadPool* m_pool;
};

class Uv : public Pool {
  public:
    // The number of threads is the process's, from the environment.
    static constexpr unsigned Threads = 2;

    explicit Uv(unsigned threads) {
        setenv("UV_THREADPOOL_SIZE", std::to_string(threads).c_str(), 1);
        uv_loop_init(&m_loop);
    }
    ~Uv() override { uv_loop_close(&m_loop); }
    void Post(const Payload& item) override {
        auto* const work = new Work{{}, item};
        work->request.data = work;
        uv_queue_work(
            &m_loop, &work->request,
            [](uv_work_t* request) {
                const auto* const done = static_cast<Work*>(request->data);
                done->item.run(done->item);
            },
            [](uv_work_t* request, int) { delete static_cast<Work*>(request->data); });
    }
    void Finish() override { uv_run(&m_loop, UV_RUN_DEFAULT); }

  private:
    struct Work {
        uv_work_t request;
        Payload item;
    };
    uv_loop_t m_loop;
};

template <class Made>
std::unique_ptr<Pool> Make(unsigned threads, std::size_t requestors) {
    if constexpr (std::constructible_from<Made, unsigned, std::size_t>)
        return std::make_unique<Made>(threads, requestors);
    else
        return std::make_unique<Made>(threads);
}

}  // namespace

std::vector<Contestant> PeerPools() {
    return {
        {.name = "asio thread_pool", .isOrdered = true, .make = Make<Asio>},
        {.name = "oneTBB task_arena", .make = Make<Tbb>},
        {.name = "mutex and deque", .make = Make<Plain>},
        {.name = "POCO NotificationQueue", .make = Make<PocoPool>},
        {.name = "GLib GThreadPool", .make = Make<Glib>},
        {.name = "libuv uv_queue_work", .isOnePoster = true, .onlyThreads = Uv::Threads, .make = Make<Uv>},
    };
}

}  // namespace Quellan::Corvel::Bench
