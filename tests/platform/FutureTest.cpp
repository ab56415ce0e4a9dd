#include <workspace_browser/platform/message_service/Promise.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace connector::message_service;

namespace {

const std::string kCancelled = "Future has been cancelled.";
const std::string kAlreadyReturned =
    "Future already returned it's value or has an associated continuation.";

// Runs `call` and returns the text of the std::runtime_error it throws (fails otherwise).
template <class Call> std::string runtimeErrorText(Call&& call) {
    try {
        call();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    ADD_FAILURE() << "no std::runtime_error thrown";
    return {};
}

struct CustomError : std::logic_error {
    using std::logic_error::logic_error;
};

} // namespace

TEST(Future, EachOutcomeIsTakenOnceThenTheAlreadyReturnedErrorFollows) {
    Promise<std::string> promise;
    Future<std::string> future = promise.get_future();
    promise.set_value("payload");
    EXPECT_EQ(future.get(), "payload");
    future.wait(); // must not block once the value is gone
    EXPECT_EQ(runtimeErrorText([&] { future.get(); }), kAlreadyReturned);

    Promise<void> failing;
    Future<void> failed = failing.get_future();
    failing.set_exception(std::make_exception_ptr(CustomError("boom")));
    EXPECT_THROW(failed.get(), CustomError);
    EXPECT_EQ(runtimeErrorText([&] { failed.get(); }), kAlreadyReturned);

    EXPECT_EQ(*make_ready_future(std::make_unique<int>(9)).get(), 9);
    Future<void> done = make_ready_future();
    EXPECT_NO_THROW(done.get());
    EXPECT_EQ(runtimeErrorText([&] { done.get(); }), kAlreadyReturned);
}

TEST(Future, InvalidAndCancelledFuturesThrowTheirTextsEveryTime) {
    Future<int> invalid;
    EXPECT_EQ(runtimeErrorText([&] { invalid.get(); }), "Invalid Future state reached.");
    EXPECT_EQ(runtimeErrorText([&] { invalid.wait(); }), "Invalid Future state reached.");

    Promise<int> promise;
    Future<int> future = promise.get_future();
    promise.cancel();
    future.wait();
    EXPECT_EQ(runtimeErrorText([&] { future.get(); }), kCancelled);
    EXPECT_EQ(runtimeErrorText([&] { future.get(); }), kCancelled);
}

TEST(Promise, MisuseIsRefusedAndKeepsTheFirstOutcome) {
    Promise<int> promise;
    Future<int> future = promise.get_future();
    EXPECT_THROW(promise.get_future(), std::runtime_error);
    promise.set_value(1);
    EXPECT_THROW(promise.set_value(2), std::runtime_error);
    EXPECT_THROW(promise.cancel(), std::runtime_error);
    EXPECT_EQ(future.get(), 1);

    Promise<void> cancelled;
    cancelled.cancel();
    EXPECT_THROW(cancelled.set_value(), std::runtime_error);
}

TEST(Promise, DestroyedOrReplacedWithoutAnOutcomeBreaksTheFuture) {
    Future<int> future, kept;
    {
        Promise<int> promise, completed;
        future = promise.get_future();
        kept = completed.get_future();
        completed.set_value(5);
    }
    EXPECT_NE(runtimeErrorText([&] { future.get(); }).find("destroyed"), std::string::npos);
    EXPECT_EQ(kept.get(), 5) << "a completed promise may go away; its value stays";

    Promise<void> first;
    Future<void> firstFuture = first.get_future();
    first = Promise<void>();
    EXPECT_THROW(firstFuture.get(), std::runtime_error);
}

TEST(Future, WaitersOnOtherThreadsWakeForEachOutcome) {
    {
        Promise<int> promise;
        Future<int> future = promise.get_future();
        std::atomic<int> woken{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 3; ++i)
            waiters.emplace_back([&] {
                future.wait();
                ++woken;
            });
        promise.set_value(11);
        for (auto& t : waiters)
            t.join();
        EXPECT_EQ(woken.load(), 3);
        EXPECT_EQ(future.get(), 11);
    }
    {
        Promise<int> promise;
        Future<int> future = promise.get_future();
        std::thread producer(
            [&] { promise.set_exception(std::make_exception_ptr(CustomError("remote"))); });
        EXPECT_THROW(future.get(), CustomError);
        producer.join();
    }
    {
        auto promise = std::make_unique<Promise<int>>();
        Future<int> future = promise->get_future();
        std::thread producer([p = std::move(promise)]() mutable { p.reset(); });
        EXPECT_THROW(future.get(), std::runtime_error);
        producer.join();
    }
}
