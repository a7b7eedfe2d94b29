#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "NyApi/Event.h"

namespace {

TEST(Event, RaisesInSubscriptionOrderAndHandleRemovesExactlyItsHandler) {
    Ny::Event<std::string> event;
    std::vector<std::string> calls;
    const auto a = event.Subscribe([&](std::string id) { calls.push_back("a:" + id); });
    const auto b = event.Subscribe([&](std::string id) { calls.push_back("b:" + id); });
    const auto c = event.Subscribe([&](std::string id) { calls.push_back("c:" + id); });
    event.Raise("x");
    event.Unsubscribe(b);
    event.Unsubscribe(b);  // a second removal is harmless
    event.Raise("y");
    EXPECT_EQ(calls, (std::vector<std::string>{"a:x", "b:x", "c:x", "a:y", "c:y"}));
    EXPECT_NE(a, c);
}

TEST(Event, EachHandlerGetsItsOwnCopyOfTheArguments) {
    Ny::Event<std::string> event;
    std::vector<std::string> seen;
    event.Subscribe([&](std::string id) {
        id += "-changed";
        seen.push_back(id);
    });
    event.Subscribe([&](std::string id) { seen.push_back(id); });
    event.Raise("Calib-0");
    EXPECT_EQ(seen, (std::vector<std::string>{"Calib-0-changed", "Calib-0"}));
}

TEST(Event, ExceptionFromHandlerStopsTheRaiseAndReachesTheRaiser) {
    Ny::Event<> event;
    int later = 0;
    event.Subscribe([] { throw std::runtime_error("handler failed"); });
    event.Subscribe([&] { ++later; });
    EXPECT_THROW(event.Raise(), std::runtime_error);
    EXPECT_EQ(later, 0);
}

TEST(Event, HandlerMayRemoveItselfAndOthersDuringARaise) {
    Ny::Event<> event;
    Ny::Event<>::Handle self = 0;
    Ny::Event<>::Handle next = 0;
    int selfCalls = 0;
    int nextCalls = 0;
    self = event.Subscribe([&] {
        ++selfCalls;
        event.Unsubscribe(self);
        event.Unsubscribe(next);
    });
    next = event.Subscribe([&] { ++nextCalls; });
    event.Raise();
    event.Raise();
    EXPECT_EQ(selfCalls, 1);
    EXPECT_EQ(nextCalls, 0);  // removed before its turn in the same raise
    EXPECT_EQ(event.HandlerCount(), 0u);
}

TEST(Event, UnsubscribeFromAnotherThreadWaitsForTheRunningHandler) {
    Ny::Event<> event;
    std::promise<void> inHandler;
    std::promise<void> releaseHandler;
    auto release = releaseHandler.get_future().share();
    std::atomic<bool> handlerDone{false};
    const auto handle = event.Subscribe([&] {
        inHandler.set_value();
        release.wait();
        handlerDone = true;
    });
    std::thread raiser([&] { event.Raise(); });
    inHandler.get_future().wait();

    auto unsubscribed = std::async(std::launch::async, [&] {
        event.Unsubscribe(handle);
        return handlerDone.load();
    });
    // The unsubscriber must still be waiting: the handler cannot finish before we release it.
    EXPECT_EQ(unsubscribed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    releaseHandler.set_value();
    EXPECT_TRUE(unsubscribed.get());
    raiser.join();
}

TEST(Event, ConcurrentSubscribeUnsubscribeAndRaiseStayConsistent) {
    Ny::Event<int> event;
    std::atomic<int> calls{0};
    std::atomic<bool> stop{false};
    const auto keep = event.Subscribe([&](int) { ++calls; });
    std::thread raiser([&] {
        while (!stop) {
            event.Raise(1);
        }
    });
    for (int i = 0; i < 2000 || calls.load() == 0; ++i) {
        const auto handle = event.Subscribe([&](int) { ++calls; });
        event.Unsubscribe(handle);
    }
    stop = true;
    raiser.join();
    EXPECT_EQ(event.HandlerCount(), 1u);
    event.Unsubscribe(keep);
    EXPECT_GT(calls.load(), 0);
}

}  // namespace

TEST(Event, ScopedSubscriptionRemovesItsHandlerWhenDestroyedMovedOverOrOutlivingTheEvent) {
    std::vector<int> calls;
    Ny::Subscription outliving;
    {
        Ny::Event<int> event;
        {
            Ny::Subscription first = event.SubscribeScoped([&calls](int v) { calls.push_back(v); });
            event.Raise(1);
        }
        event.Raise(2);  // gone with its scope

        Ny::Subscription kept = event.SubscribeScoped([&calls](int v) { calls.push_back(10 * v); });
        Ny::Subscription moved = std::move(kept);
        EXPECT_FALSE(kept);
        event.Raise(3);
        moved = event.SubscribeScoped([&calls](int v) { calls.push_back(100 * v); });  // releases the old one
        event.Raise(4);
        EXPECT_EQ(event.HandlerCount(), 1u);
        outliving = std::move(moved);
        EXPECT_TRUE(outliving);
    }
    EXPECT_FALSE(outliving);
    outliving.Reset();  // the event died first: nothing to do, nothing touched
    EXPECT_EQ(calls, (std::vector<int>{1, 30, 400}));
}

TEST(Event, ScopedSubscriptionResetFromItsOwnHandlerDoesNotWaitForItself) {
    Ny::Event<> event;
    int calls = 0;
    Ny::Subscription self;
    self = event.SubscribeScoped([&self, &calls] {
        ++calls;
        self.Reset();
    });
    event.Raise();
    event.Raise();
    EXPECT_EQ(calls, 1);
}
