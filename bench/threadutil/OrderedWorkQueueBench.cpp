// Push-to-run latency on an idle queue and sustained throughput of OrderedWorkQueue, side by
// side with the simplest single-worker queue: a deque under one std::mutex with one
// std::condition_variable.

#include <workspace_browser/threadutil/OrderedWorkQueue.hpp>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// The reference: one worker thread, a deque, one mutex and one condition variable.
class BareQueue {
public:
    BareQueue() : mWorker([this] { run(); }) {}
    ~BareQueue() {
        {
            std::lock_guard lock(mMutex);
            mStop = true;
        }
        mWake.notify_one();
        mWorker.join();
    }
    void push(std::function<void()> work) {
        {
            std::lock_guard lock(mMutex);
            mItems.push_back(std::move(work));
        }
        mWake.notify_one();
    }

private:
    void run() {
        std::unique_lock lock(mMutex);
        for (;;) {
            mWake.wait(lock, [this] { return mStop || !mItems.empty(); });
            if (mItems.empty())
                return; // stopping, and everything queued has run
            auto work = std::move(mItems.front());
            mItems.pop_front();
            lock.unlock();
            work();
            lock.lock();
        }
    }

    std::mutex mMutex;
    std::condition_variable mWake;
    std::deque<std::function<void()>> mItems;
    bool mStop = false;
    std::thread mWorker;
};

struct WorkQueueUnderTest {
    std::shared_ptr<threadutil::OrderedWorkQueue> queue =
        threadutil::OrderedWorkQueue::create("benchQ");
    ~WorkQueueUnderTest() { queue->terminate(true); }
    template <class F> void push(F&& work) { queue->push(std::forward<F>(work)); }
};

struct BareQueueUnderTest {
    BareQueue queue;
    template <class F> void push(F&& work) { queue.push(std::forward<F>(work)); }
};

double percentile(std::vector<double>& samples, double p) {
    const auto rank = static_cast<std::size_t>(p * static_cast<double>(samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(rank),
                     samples.end());
    return samples[rank];
}

// One sample per iteration: push one item onto a queue whose worker has been idle for
// state.range(0) microseconds and measure until the item starts running. The wait between
// samples is outside the measured time.
template <class Queue> void idlePushToRun(benchmark::State& state) {
    Queue q;
    const auto idle = std::chrono::microseconds(state.range(0));
    std::vector<double> samplesUs;
    samplesUs.reserve(static_cast<std::size_t>(state.max_iterations));
    std::atomic<std::int64_t> startedAt{0};

    for (auto _ : state) {
        std::this_thread::sleep_for(idle);
        startedAt.store(0, std::memory_order_relaxed);
        const auto pushedAt = Clock::now();
        q.push([&startedAt] {
            startedAt.store(Clock::now().time_since_epoch().count(), std::memory_order_release);
        });
        std::int64_t ran;
        while ((ran = startedAt.load(std::memory_order_acquire)) == 0)
            std::this_thread::yield();
        const std::chrono::duration<double> latency =
            Clock::duration(ran) - pushedAt.time_since_epoch();
        state.SetIterationTime(latency.count());
        samplesUs.push_back(latency.count() * 1e6);
    }
    state.counters["p50_us"] = percentile(samplesUs, 0.50);
    state.counters["p99_us"] = percentile(samplesUs, 0.99);
}

// Sustained throughput: one producer pushes no-op items as fast as it can; the time runs until
// the worker has run the last of them.
template <class Queue> void noOpThroughput(benchmark::State& state) {
    const auto items = state.range(0);
    for (auto _ : state) {
        std::atomic<bool> done{false};
        {
            Queue q;
            for (std::int64_t i = 0; i + 1 < items; ++i)
                q.push([] {});
            q.push([&done] { done.store(true, std::memory_order_release); });
            while (!done.load(std::memory_order_acquire))
                std::this_thread::yield();
            state.PauseTiming(); // stopping the worker is not part of the throughput
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * items);
}

} // namespace

BENCHMARK(idlePushToRun<WorkQueueUnderTest>)
    ->Name("IdlePushToRun/OrderedWorkQueue")
    ->Arg(20)
    ->Arg(1000)
    ->Iterations(3000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(idlePushToRun<BareQueueUnderTest>)
    ->Name("IdlePushToRun/MutexCondvarQueue")
    ->Arg(20)
    ->Arg(1000)
    ->Iterations(3000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(noOpThroughput<WorkQueueUnderTest>)
    ->Name("NoOpThroughput/OrderedWorkQueue")
    ->Arg(1 << 20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(noOpThroughput<BareQueueUnderTest>)
    ->Name("NoOpThroughput/MutexCondvarQueue")
    ->Arg(1 << 20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
